// Firmware download to a drive behind a storelib controller: announced to the controller, waited for until
// the controller allows it, and sent in chunks of 32 KiB as SCSI pass-through commands.
#pragma once

#include <cstdint>
#include <cstdio>

#include "profiles/firmware_image.h"

namespace mirvok {

constexpr uint32_t ctrl_info_size = 2384;

// Downloads the image file at `image_path` to one drive and waits for the drive to settle. Returns 0, 1 when
// a chunk failed or could not be read whole, RESULT_NO_DRIVE_INFORMATION, RESULT_PROTOCOL_NOT_SUPPORTED,
// RESULT_IMAGE_LOST, RESULT_IMAGE_UNREADABLE for an empty image, RESULT_DOWNLOAD_FAILED for one whose chunks
// the announcement cannot count, or RESULT_CONTROLLER_REFUSES, also when a signal that
// ends the run came before the first chunk.
int FlashPdFW_BRCM(uint32_t ctrl_id, uint16_t ctrl_type, uint16_t device_id, const char* image_path,
                   uint8_t mode);

// Announces a download of `image_size` bytes to the controller. Returns the library's status.
int PrepareForPDFWDownload(uint32_t ctrl_id, uint16_t ctrl_type, uint16_t device_id, uint8_t mode,
                           uint32_t image_size);

// Reads the controller information into `buffer`, ctrl_info_size bytes, which is cleared first. Returns the
// library's status.
int GetCtrlInfo(uint32_t ctrl_id, uint16_t ctrl_type, uint8_t* buffer);

// Reads the drive information into `buffer`, pd_info_size bytes, which is cleared first. Returns the
// library's status.
int fire_pd_info(uint32_t ctrl_id, uint16_t ctrl_type, uint16_t device_id, uint8_t* buffer);

// Sends the file, open at its start, in mode 7. image_size: its size as announced, in bytes; interface: the
// drive's interface type. Returns 0, or 1 at the first chunk that failed or when the file no longer has its
// size.
int DoPDFWDownload_7(uint32_t ctrl_id, uint16_t device_id, uint16_t ctrl_type, uint32_t interface,
                     std::FILE* file, uint32_t image_size);

// Sends the next `length` bytes of `file`, 32 KiB at the most: to SAS and NVMe drives with WRITE BUFFER
// (SPC-4) at `offset` in bytes, to SATA drives with DOWNLOAD MICROCODE (ACS-3) at `offset` in blocks of 512
// bytes. Returns the library's status; where that is 0, the SCSI status of a chunk that the drive refused, or
// 1 for GOOD beside sense data of an error; 0x8015 when there is no frame for so much;
// RESULT_IMAGE_UNREADABLE, with nothing sent, when the file holds fewer bytes or is no longer as it was
// `before`.
int DoPDFWDownload(uint32_t ctrl_id, uint16_t device_id, uint16_t ctrl_type, uint32_t interface,
                   std::FILE* file, const image_state& before, uint32_t length, uint32_t offset,
                   uint8_t mode);

}  // namespace mirvok
