#include "commands/json_report.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>

#include "commands/find.h"
#include "commands/flash.h"
#include "commands/flash_report.h"
#include "commands/report_file.h"
#include "commands/smart.h"
#include "common/json_writer.h"
#include "profiles/drive_sizes.h"
#include "storage/drive_paths.h"

namespace mirvok {

namespace {

struct code_name {
    uint32_t code;
    const char* name;
};

constexpr code_name protocol_names[] = {{PD_PROTOCOL_SAS, "SAS"},    {PD_PROTOCOL_SATA, "SATA"},
                                        {PD_PROTOCOL_NVME, "NVMe"},  {PD_PROTOCOL_M2, "M2"},
                                        {PD_PROTOCOL_SCSI, "SCSI"},  {PD_PROTOCOL_SATA_OTHER, "SATA"},
                                        {PD_PROTOCOL_OTHER, "other"}};
constexpr code_name state_names[] = {{PD_STATUS_UNCONFIGURED_GOOD, "unconfigured_good"},
                                     {PD_STATUS_ONLINE, "online"},
                                     {PD_STATUS_JBOD, "jbod"},
                                     {PD_STATUS_OFFLINE, "offline"},
                                     {PD_STATUS_HOT_SPARE, "hot_spare"},
                                     {PD_STATUS_UNCONFIGURED_BAD, "unconfigured_bad"},
                                     {PD_STATUS_FAILED, "failed"},
                                     {PD_STATUS_REBUILD, "rebuild"}};
constexpr code_name reason_names[] = {{LEFT_OUT_DUPLICATE, "duplicate"},
                                      {LEFT_OUT_IDENTIFY_FAILED, "identify_failed"},
                                      {LEFT_OUT_NOT_IN_PROFILE, "not_in_profile"},
                                      {LEFT_OUT_NOT_SELECTED, "not_selected"}};
constexpr code_name match_names[] = {{MATCH_PART_NUMBER, "part_number"},
                                     {MATCH_PART_NUMBER_8S, "part_number_8s"},
                                     {MATCH_PRODUCT_ID, "product_id"}};
constexpr code_name outcome_names[] = {
    {OUTCOME_LATEST, "latest"},   {OUTCOME_NOT_IN_PROFILE, "not_in_profile"},
    {OUTCOME_REFUSED, "refused"}, {OUTCOME_DUE, "due"},
    {OUTCOME_UPDATED, "updated"}, {OUTCOME_FAILED, "failed"}};
constexpr code_name exceeded_names[] = {
    {EXCEED_WRITTEN, "written"}, {EXCEED_LIFE, "life"}, {EXCEED_TEMPERATURE, "temperature"}};

template <size_t Count>
const char* name_of(const code_name (&names)[Count], uint32_t code, const char* other) {
    for (const code_name& row : names) {
        if (row.code == code) {
            return row.name;
        }
    }
    return other;
}

void write_time(const char* key, time_t time) {
    char text[32];
    struct tm parts = {};
    gmtime_r(&time, &parts);
    std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts);
    json_text(key, text);
}

// Which drive it is on its path.
void write_place(const _pd_info* pd) {
    json_unsigned("controller", pd->ctrl->ctrl_num);
    json_unsigned("device_id", pd->device_id);
    json_text("node", pd->dev_name[0] != '\0' ? pd->dev_name : nullptr);
}

void write_identity(const _pd_info* pd, uint32_t number, match_t match) {
    json_unsigned("number", number);
    write_place(pd);
    json_unsigned("slot_id", pd->slot_id);
    json_unsigned("port_id", pd->port_id);
    json_text("protocol", name_of(protocol_names, pd->protocol, "unknown"));
    json_unsigned("status", pd->status);
    json_text("state", name_of(state_names, pd->status, "unknown"));
    json_unsigned("size_gb", pd->size);
    json_text("part_number", pd->part_number);
    json_text("part_number_8s", pd->part_number_8s);
    json_text("serial_number", pd->serial_number);
    json_text("device_serial", pd->device_serial);
    json_text("product_id", pd->product_id);
    json_text("vendor_id", pd->vendor_id);
    json_text("dummy", pd->dummy);
    json_text("fru", pd->fru);
    json_text("code_level", pd->code_level);
    json_bool("c4_valid", pd->c4_valid != 0);
    json_bool("b0_valid", pd->b0_valid != 0);
    json_unsigned("last_lba", static_cast<uint64_t>(pd->lba_high) << 32 | pd->lba_low);
    json_unsigned("nvme_lba_count", pd->nvme_lba_count);
    json_text("matched_by", name_of(match_names, match, nullptr));
}

void write_drive(const drive& slot, uint32_t number) {
    write_identity(slot.pd, number, slot.match);
    if (slot.record != nullptr) {
        json_unsigned("type", slot.record->type);
    } else {
        json_null("type");
    }
}

void write_flash_result(const drive& slot) {
    const outcome_t outcome = slot.outcome;
    json_open_object("flash");
    json_text("level_before", slot.level_before);
    json_text("level_after", slot.pd->code_level);
    json_text("level_prescribed", slot.record != nullptr ? slot.record->fw_level : nullptr);
    json_text("image", slot.record != nullptr ? slot.record->image_name : nullptr);
    json_text("outcome", name_of(outcome_names, outcome, nullptr));
    json_unsigned("code", slot.result);
    char text[text_of_result_size];
    json_text("text", outcome == OUTCOME_FAILED || outcome == OUTCOME_REFUSED ? text_of_result(&slot, text)
                                                                              : nullptr);
    json_close();
}

void write_number_or_null(const char* key, bool valid, uint64_t value) {
    if (valid) {
        json_unsigned(key, value);
    } else {
        json_null(key);
    }
}

void write_smart_result(const _smart_drive& reported) {
    const _smart_info& info = reported.info;
    const _smart_profile_record& record = *reported.matched_record;
    json_open_object("smart");
    json_text("bytes_written",
              info.written_valid != 0 && info.written_text[0] != '\0' ? info.written_text : nullptr);
    write_number_or_null("written_raw", info.written_valid != 0, info.written_raw);
    write_number_or_null("life_remaining", info.life_valid != 0, info.life);
    write_number_or_null("temperature", info.temperature_valid != 0, info.temperature);
    json_open_object("limits");
    json_unsigned("warranty_gb", record.warranty_gb);
    json_unsigned("life_threshold", record.life_threshold);
    json_unsigned("spec_max_temp", record.spec_max_temp);
    json_close();
    json_open_array("exceeded");
    for (const code_name& row : exceeded_names) {
        if ((info.exceeded & row.code) != 0) {
            json_text(nullptr, row.name);
        }
    }
    json_close();
    json_bool("predictive_failure", info.pfa_trip != 0);
    json_close();
}

void write_controllers(const _storage_lib* lib) {
    json_open_array("controllers");
    for (uint32_t i = 0; i < lib->ctrl_count; ++i) {
        const _ctrl_info& ctrl = ctrllist[i];
        json_open_object(nullptr);
        json_unsigned("number", ctrl.ctrl_num);
        json_unsigned("id", ctrl.ctrl_id);
        json_text("path", path_of(&ctrl).name);
        json_text("type", label_of(ctrl.type));
        json_unsigned("drives", ctrl.pd_count);
        json_close();
    }
    json_close();
}

void write_left_out(const left_out_list& list) {
    json_open_array("left_out");
    for (uint32_t i = 0; i < list.count; ++i) {
        const left_out_drive& left = list.drives[i];
        json_open_object(nullptr);
        write_place(left.pd);
        json_text("reason", name_of(reason_names, left.reason, nullptr));
        if (left.duplicate_of != nullptr) {
            json_open_object("duplicate_of");
            write_place(left.duplicate_of);
            json_close();
        } else {
            json_null("duplicate_of");
        }
        json_close();
    }
    json_close();
}

void write_head(const char* operation, const _storage_lib* lib, const run_record& record, int status) {
    char host[256] = {};
    gethostname(host, sizeof(host) - 1);
    json_begin(report_file());
    json_open_object(nullptr);
    json_unsigned("schema", 1);
    json_open_object("tool");
    json_text("name", "mirvok");
    json_text("version", "17.4.2");
    json_close();
    json_text("operation", operation);
    json_text("host", host);
    write_time("start", record.start);
    write_time("end", std::time(nullptr));
    json_number("exit_status", status);
    json_open_array("data_files");
    if (record.profile_name != nullptr) {
        json_open_object(nullptr);
        json_text("name", record.profile_name);
        write_number_or_null("records", record.profile_loaded, record.profile_records);
        json_close();
    }
    json_open_object(nullptr);
    json_text("name", "sizes.bin");
    write_number_or_null("records", drive_sizes_result == 0, drive_sizes_size);
    json_close();
    json_close();
    write_controllers(lib);
}

void finish(const run_record& record) {
    write_left_out(record.left_out);
    json_close();
    close_report_file(json_end() == 0);
}

template <size_t Capacity>
void write_drives(const drive (&drives)[Capacity], uint32_t count, bool flashed) {
    json_open_array("drives");
    for (uint32_t i = 0; i < count; ++i) {
        json_open_object(nullptr);
        write_drive(drives[i], i + 1);
        if (flashed) {
            write_flash_result(drives[i]);
        }
        json_close();
    }
    json_close();
}

}  // namespace

void begin_record(run_record* record) {
    record->start = std::time(nullptr);
    record->profile_name = nullptr;
    record->left_out.count = 0;
}

void note_profile(run_record* record, const char* name, bool loaded, uint32_t records) {
    record->profile_name = name;
    record->profile_loaded = loaded;
    record->profile_records = records;
}

void write_report(const _find_program* program, const _storage_lib* lib, const run_record& record,
                  int status) {
    if (report_file() != nullptr) {
        write_head("find", lib, record, status);
        write_drives(program->drives, program->drive_count, false);
        finish(record);
    }
}

void write_report(const flash* program, const _storage_lib* lib, const run_record& record, int status) {
    if (report_file() != nullptr) {
        write_head("flash", lib, record, status);
        json_bool("check", program->check != 0);
        write_drives(program->drives, program->drive_count, true);
        finish(record);
    }
}

void write_report(const _smart_program* program, const _storage_lib* lib, const run_record& record,
                  int status) {
    if (report_file() != nullptr) {
        write_head("smart", lib, record, status);
        json_open_array("drives");
        for (uint32_t i = 0; i < program->total_count; ++i) {
            json_open_object(nullptr);
            write_identity(program->drives[i].pd, i + 1, program->drives[i].match);
            write_smart_result(program->drives[i]);
            json_close();
        }
        json_close();
        finish(record);
    }
}

}  // namespace mirvok
