#include "profiles/firmware_image.h"

#include <sys/stat.h>

#include "common/data_file.h"
#include "common/diagnostics.h"
#include "storage/device_model.h"

namespace mirvok {

namespace {

bool is_refused(const struct stat& status) {
    return !S_ISREG(status.st_mode) || is_log_file(status.st_dev, status.st_ino);
}

int examine_image(std::FILE* file, const image_rule& rule, uint32_t* size) {
    struct stat status = {};
    // What was opened counts: it may have come in the image's place since its path was looked at.
    if (fstat(fileno(file), &status) != 0 || is_refused(status) || status.st_size <= 0) {
        return RESULT_IMAGE_UNREADABLE;
    }
    if (status.st_size > static_cast<off_t>(rule.max_size) || status.st_size % rule.multiple != 0) {
        TRACE_PRINT("image size:%lld is not supported", static_cast<long long>(status.st_size));
        return RESULT_DOWNLOAD_FAILED;
    }
    *size = static_cast<uint32_t>(status.st_size);
    return 0;
}

}  // namespace

bool get_image_state(std::FILE* file, image_state* state) {
    struct stat status = {};
    if (fstat(fileno(file), &status) != 0) {
        return false;
    }
    *state = {status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
    return true;
}

bool is_refused_image(const char* path) {
    struct stat status = {};
    return stat(path, &status) == 0 && is_refused(status);
}

int open_image(const char* path, const image_rule& rule, std::FILE** file, uint32_t* size) {
    TRACE_PRINT("Entering %s", __func__);
    int rc = RESULT_IMAGE_LOST;
    std::FILE* opened = nullptr;
    if (is_refused_image(path)) {
        rc = RESULT_IMAGE_UNREADABLE;
    } else {
        opened = open_data_file(path);
    }
    if (opened != nullptr) {
        rc = examine_image(opened, rule, size);
        if (rc == 0) {
            *file = opened;
        } else {
            std::fclose(opened);
        }
    }
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

int read_image(std::FILE* file, uint8_t* buffer, uint32_t size, uint32_t* read_count) {
    TRACE_PRINT("Entering %s", __func__);
    image_state before = {};
    image_state after = {};
    const bool known = get_image_state(file, &before);
    *read_count = static_cast<uint32_t>(std::fread(buffer, 1, size, file));
    const bool whole = known && *read_count == size && before.size == int64_t{size} &&
                       get_image_state(file, &after) && after == before;
    const int rc = whole ? 0 : static_cast<int>(RESULT_IMAGE_UNREADABLE);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, rc);
    return rc;
}

}  // namespace mirvok
