#include "commands/json_report.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "commands/drive_fields.h"
#include "commands/find.h"
#include "commands/flash.h"
#include "commands/flash_report.h"
#include "commands/report_file.h"
#include "commands/smart.h"
#include "commands/smart_report.h"
#include "common/code_names.h"
#include "common/json_writer.h"
#include "profiles/drive_sizes.h"
#include "storage/drive_paths.h"
#include "storage/drive_use.h"

namespace mirvok {

namespace {

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
// Critical Warning, a bit each (NVMe 1.4, 5.14.1.2).
constexpr code_name warning_names[] = {{0x01, "spare_below_threshold"},
                                       {0x02, "temperature_exceeded"},
                                       {0x04, "reliability_degraded"},
                                       {0x08, "read_only"},
                                       {0x10, "backup_failed"},
                                       {0x20, "persistent_memory_unreliable"},
                                       {0x40, "reserved_6"},
                                       {0x80, "reserved_7"}};

void write_time(const char* key, time_t time) {
    char text[32];
    struct tm parts = {};
    gmtime_r(&time, &parts);
    std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts);
    json_text(key, text);
}

void write_null_or(bool known, const char* key, uint64_t value) {
    if (known) {
        json_unsigned(key, value);
    } else {
        json_null(key);
    }
}

void write_field(const drive_field& field, const _pd_info* pd) {
    const field_value value = field.value(pd);
    if (value.kind == FIELD_BOOL) {
        json_bool(field.name, value.number != 0);
    } else if (value.kind == FIELD_NUMBER) {
        json_unsigned(field.name, value.number);
    } else {
        json_text(field.name, value.kind == FIELD_TEXT ? value.text : nullptr);
    }
}

void write_text_or_null(const char* key, const char* text) {
    json_text(key, text[0] != '\0' ? text : nullptr);
}

// Which drive it is on its path.
void write_place(const _pd_info* pd) {
    for (const drive_field& field : drive_fields().first(place_fields)) {
        write_field(field, pd);
    }
}

void write_users(const _pd_info* pd) {
    drive_users users;
    find_drive_users(pd, &users);
    if (!users.known) {
        json_null("in_use");
        return;
    }
    json_open_array("in_use");
    for (uint32_t i = 0; i < users.count; ++i) {
        json_open_object(nullptr);
        json_text("kind", users.list[i].kind);
        json_text("name", users.list[i].name);
        json_close();
    }
    json_close();
}

// What every operation tells of a drive; `record` is the flash profile's, or null.
void write_drive(const _pd_info* pd, uint32_t number, match_t match, const profile_record* record) {
    json_unsigned("number", number);
    for (const drive_field& field : drive_fields()) {
        write_field(field, pd);
    }
    write_users(pd);
    json_text("matched_by", name_of(match_names, match));
    write_null_or(record != nullptr, "type", record != nullptr ? record->type : 0);
}

// In a check: whether the next reset starts the prescribed level; compared over its length, as
// check_is_update does.
void write_pending_reset(const drive& slot) {
    const _pd_info* pd = slot.pd;
    const char* level = slot.record != nullptr ? slot.record->fw_level : nullptr;
    if (slot.check != 0 && pd->next_level_valid != 0) {
        json_bool("pending_reset", level != nullptr && pd->next_level[0] != '\0' &&
                                       std::strncmp(level, pd->next_level, std::strlen(level)) == 0);
    } else {
        json_null("pending_reset");
    }
}

// What an NVMe drive was given runs after its next reset alone.
void write_flash_result(const drive& slot) {
    const outcome_t outcome = slot.outcome;
    const bool nvme = outcome == OUTCOME_UPDATED && drive_kind(slot.pd->protocol) == DRIVE_NVME;
    const bool committed = nvme && (slot.pd->committed || !path_of(slot.pd->ctrl).has_node);
    const char* level = nvme ? slot.level_before : slot.pd->code_level;
    json_open_object("flash");
    json_text("level_before", slot.level_before);
    json_text("level_after", slot.silent != 0 ? nullptr : level);
    json_text("level_committed", committed ? slot.record->fw_level : nullptr);
    json_text("level_prescribed", slot.record != nullptr ? slot.record->fw_level : nullptr);
    json_text("image", slot.record != nullptr ? slot.record->image_name : nullptr);
    json_text("outcome", name_of(outcome_names, outcome));
    json_unsigned("code", slot.result);
    char text[text_of_result_size];
    json_text("text", outcome == OUTCOME_FAILED || outcome == OUTCOME_REFUSED ? text_of_result(&slot, text)
                                                                              : nullptr);
    json_text("activation", committed ? "pending_reset" : nullptr);
    write_pending_reset(slot);
    json_close();
}

template <size_t Count>
void write_names(const char* key, const code_name (&names)[Count], uint32_t bits) {
    json_open_array(key);
    for (const code_name& row : names) {
        if ((bits & row.code) != 0) {
            json_text(nullptr, row.name);
        }
    }
    json_close();
}

void write_health(const smart_health& health) {
    const bool told = health.log_valid != 0;
    json_open_object("health");
    if (told) {
        write_names("critical_warning", warning_names, health.critical_warning);
    } else {
        json_null("critical_warning");
    }
    write_null_or(told, "available_spare_percent", health.available_spare);
    write_null_or(told, "available_spare_threshold_percent", health.spare_threshold);
    write_null_or(told, "media_errors", health.media_errors);
    write_null_or(told, "unsafe_shutdowns", health.unsafe_shutdowns);
    write_null_or(health.power_on_hours_valid != 0, "power_on_hours", health.power_on_hours);
    json_close();
}

void write_smart_result(const _smart_drive& reported) {
    const _smart_info& info = reported.info;
    const _smart_profile_record& record = *reported.matched_record;
    const written_unit unit = written_unit_of(record.drive_type);
    const bool judged = unit.name != nullptr;
    json_open_object("smart");
    json_unsigned("drive_type", record.drive_type);
    write_null_or(judged && info.written_valid != 0, "written_bytes", bytes_written(info.written_raw, unit));
    write_null_or(judged, "warranty_bytes", uint64_t{record.warranty_gb} << 30);
    write_null_or(info.written_valid != 0, "written_raw", info.written_raw);
    json_text("written_unit", unit.name);
    if (info.temperature_valid != 0) {
        json_number("temperature_celsius", temperature_of(reported));
    } else {
        json_null("temperature_celsius");
    }
    json_unsigned("temperature_max_celsius", record.spec_max_temp);
    write_null_or(info.life_valid != 0, "life_remaining_percent", info.life);
    json_unsigned("life_threshold_percent", record.life_threshold);
    write_names("exceeded", exceeded_names, info.exceeded);
    if (info.health.prediction_valid != 0) {
        json_bool("predictive_failure", info.pfa_trip != 0);
    } else {
        json_null("predictive_failure");
    }
    write_health(info.health);
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
        write_text_or_null("product_id", left.pd->product_id);
        write_text_or_null("serial_number", left.pd->serial_number);
        json_text("reason", name_of(reason_names, left.reason));
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

// `check` is null for operations that have none.
void write_head(const char* operation, const bool* check, const _storage_lib* lib, const run_record& record,
                int status) {
    char host[256] = {};
    gethostname(host, sizeof(host) - 1);
    json_begin(report_file());
    json_open_object(nullptr);
    json_unsigned("schema", 2);
    json_open_object("tool");
    json_text("name", "mirvok");
    json_text("version", "17.4.2");
    json_close();
    json_text("operation", operation);
    if (check != nullptr) {
        json_bool("check", *check);
    } else {
        json_null("check");
    }
    json_text("host", host);
    write_time("start", record.start);
    write_time("end", std::time(nullptr));
    json_number("exit_status", status);
    json_open_array("data_files");
    if (record.profile_name != nullptr) {
        json_open_object(nullptr);
        json_text("name", record.profile_name);
        write_null_or(record.profile_loaded, "records", record.profile_records);
        json_close();
    }
    json_open_object(nullptr);
    json_text("name", "sizes.bin");
    write_null_or(drive_sizes_result == 0, "records", drive_sizes_size);
    json_close();
    json_close();
    write_controllers(lib);
}

// The whole report; `write_one` writes what a drive's object, by its index below `count`, holds.
template <class WriteOne>
void write_document(const char* operation, const bool* check, const _storage_lib* lib,
                    const run_record& record, int status, uint32_t count, WriteOne write_one) {
    if (report_file() == nullptr) {
        return;
    }
    write_head(operation, check, lib, record, status);
    json_open_array("drives");
    for (uint32_t i = 0; i < count; ++i) {
        json_open_object(nullptr);
        write_one(i);
        json_close();
    }
    json_close();
    write_left_out(record.left_out);
    json_close();
    close_report_file(json_end() == 0, record.profile_name);
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
    write_document("find", nullptr, lib, record, status, program->drive_count, [program](uint32_t i) {
        const drive& slot = program->drives[i];
        write_drive(slot.pd, i + 1, slot.match, slot.record);
        json_null("flash");
        json_null("smart");
    });
}

void write_report(const flash* program, const _storage_lib* lib, const run_record& record, int status) {
    const bool check = program->check != 0;
    write_document("flash", &check, lib, record, status, program->drive_count, [program](uint32_t i) {
        const drive& slot = program->drives[i];
        write_drive(slot.pd, i + 1, slot.match, slot.record);
        write_flash_result(slot);
        json_null("smart");
    });
}

void write_report(const _smart_program* program, const _storage_lib* lib, const run_record& record,
                  int status) {
    write_document("smart", nullptr, lib, record, status, program->total_count, [program](uint32_t i) {
        const _smart_drive& reported = program->drives[i];
        write_drive(reported.pd, i + 1, reported.match, nullptr);
        json_null("flash");
        write_smart_result(reported);
    });
}

}  // namespace mirvok
