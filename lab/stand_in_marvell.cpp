// The two Marvell libraries; LAB_DOWNLOADS makes it the one with the disk downloads. What they answer comes
// from the preloaded library, where the drives are.
#include <cstdint>

extern "C" {

#ifdef LAB_DOWNLOADS

uint8_t mirvok_lab_mv_download(uint8_t adapter, uint8_t device, const char* path);
uint8_t mirvok_lab_mv_download_status(uint8_t adapter, uint8_t device, uint8_t* percentage, uint8_t* status);

uint8_t MV_Download_Disk_FW(uint8_t adapter, uint8_t device, const char* path) {
    return mirvok_lab_mv_download(adapter, device, path);
}

uint8_t MV_Get_Download_Disk_Status(uint8_t adapter, uint8_t device, uint8_t* percentage, uint8_t* status) {
    return mirvok_lab_mv_download_status(adapter, device, percentage, status);
}

#else

uint8_t mirvok_lab_mv_initialize();
uint8_t mirvok_lab_mv_finalize();
uint8_t mirvok_lab_mv_adapter_count();
uint8_t mirvok_lab_mv_adapter_info(uint8_t adapter, uint8_t* found, void* record);
uint8_t mirvok_lab_mv_drives(uint8_t adapter, void* request);
uint8_t mirvok_lab_mv_scsi(uint8_t adapter, uint8_t device, void* request);
uint8_t mirvok_lab_mv_unused(const char* name);

uint8_t MV_API_Initialize() {
    return mirvok_lab_mv_initialize();
}

uint8_t MV_API_Finalize() {
    return mirvok_lab_mv_finalize();
}

uint8_t MV_API_Version() {
    return mirvok_lab_mv_unused(__func__);
}

uint8_t MV_Adapter_GetCount() {
    return mirvok_lab_mv_adapter_count();
}

uint8_t MV_Adapter_GetInfo(uint8_t adapter, uint8_t* found, void* record) {
    return mirvok_lab_mv_adapter_info(adapter, found, record);
}

uint8_t MV_PD_GetHDInfo() {
    return mirvok_lab_mv_unused(__func__);
}

uint8_t MV_PD_GetHDInfo_Ext(uint8_t adapter, void* request) {
    return mirvok_lab_mv_drives(adapter, request);
}

uint8_t MV_PassThrough_SCSI(uint8_t adapter, uint8_t device, void* request) {
    return mirvok_lab_mv_scsi(adapter, device, request);
}

uint8_t MV_PassThrough_ATA() {
    return mirvok_lab_mv_unused(__func__);
}

uint8_t MV_Flash_Bin() {
    return mirvok_lab_mv_unused(__func__);
}

#endif

}  // extern "C"
