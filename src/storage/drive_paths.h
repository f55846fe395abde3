// The paths to drives, a row each: what they differ in, and what every other room asks about them.
#pragma once

#include "profiles/firmware_image.h"
#include "storage/device_model.h"

namespace mirvok {

struct drive_path {
    uint32_t vendor;   // vendor_t
    const char* name;  // in the report
    uint32_t cap;      // the most drives that one controller lists

    // Lists a controller's drives, at most `max` into the records from `pd` on, and counts them in its
    // pd_count.
    int (*list)(_ctrl_info* ctrl, _pd_info* pd, uint32_t max);
    // Fills a drive's record from what the drive says. Only RESULT_IDENTIFY_FAILED is acted on.
    int (*identify)(_pd_info* pd);
    // Downloads the image file at `image`. wait_time: seconds after a success, where the path has no waits of
    // its own. Returns 0 or a result code.
    int (*download)(_pd_info* pd, const char* image, uint16_t wait_time);

    const image_rule* rule;   // what the download can carry; null: the drive's kind tells
    bool has_node;            // commands need the drive's node, open for their sequence
    bool opens_for_pieces;    // so do the pieces of a firmware image
    bool reports_state;       // the controller tells the drive's state, which decides whether it is updated
    bool registers_in_sense;  // ATA registers are looked for in the sense data, not in the command's buffer
    bool may_have_nodes;      // its disks may have nodes, too, on paths that
    bool waits_for_those;     // are not asked before them
    bool has_namespaces;      // the node's block devices are a controller's namespaces
};

// The row of the controller's path; an unknown one lists and identifies nothing.
const drive_path& path_of(const _ctrl_info* ctrl);

// What an image for this drive may be.
const image_rule& image_rule_of(const _pd_info* pd);

}  // namespace mirvok
