#include "commands/flash_report.h"

#include <cstdio>

#include "common/diagnostics.h"

namespace mirvok {

namespace {

enum text_argument_t { ARGUMENT_NONE, ARGUMENT_IMAGE, ARGUMENT_CODE, ARGUMENT_USERS };

// Whether the line of a drive that got no download shows the text; otherwise the line says that the drive is
// up to date.
enum refusal_t { REFUSAL_UNSAID, REFUSAL_IN_CHECK, REFUSAL_SAID, REFUSAL_OF_FLASH };

// The text of a result code: on the screen, in the log, and what follows it.
struct result_text {
    uint32_t code;
    const char* screen;
    const char* log;
    text_argument_t argument;
    refusal_t refusal;
};

constexpr char text_image_lost[] = "firmware file lost:";
constexpr char text_mismatch[] = "firmware code level is mismatch with expected";
constexpr char text_not_allowed[] =
    "firmware update is not allowed on this pd, please try update again later";
constexpr char text_failed[] = "firmware download fail, error=";
constexpr char text_unreadable[] = "load firmware file fail:";
constexpr char text_controller[] =
    "ctroller don't allow firmware update on this pd now, please try update again later";
constexpr char text_state[] = "firmware update status is not supported now, please try update again later";
constexpr char text_protocol[] = "PD is not SAS,SATA,NVME type, not supported";
constexpr char text_protocol_log[] = "firmware update is not supported on this pd";

constexpr char text_in_use[] = "In use(";

constexpr result_text result_texts[] = {
    {RESULT_IMAGE_LOST, text_image_lost, text_image_lost, ARGUMENT_IMAGE, REFUSAL_UNSAID},
    {RESULT_LEVEL_MISMATCH, text_mismatch, text_mismatch, ARGUMENT_NONE, REFUSAL_UNSAID},
    {RESULT_UPDATE_NOT_ALLOWED, text_not_allowed, text_not_allowed, ARGUMENT_NONE, REFUSAL_SAID},
    {RESULT_DOWNLOAD_FAILED, text_failed, text_failed, ARGUMENT_CODE, REFUSAL_UNSAID},
    {RESULT_IMAGE_UNREADABLE, text_unreadable, text_unreadable, ARGUMENT_IMAGE, REFUSAL_UNSAID},
    {RESULT_CONTROLLER_REFUSES, text_controller, text_controller, ARGUMENT_NONE, REFUSAL_SAID},
    {RESULT_NO_DRIVE_INFORMATION, text_failed, text_failed, ARGUMENT_CODE, REFUSAL_UNSAID},
    {RESULT_STATE_NOT_SUPPORTED, text_state, text_state, ARGUMENT_NONE, REFUSAL_IN_CHECK},
    {RESULT_PROTOCOL_NOT_SUPPORTED, text_protocol, text_protocol_log, ARGUMENT_NONE, REFUSAL_SAID},
    {RESULT_DRIVE_IN_USE, text_in_use, text_in_use, ARGUMENT_USERS, REFUSAL_OF_FLASH},
};
constexpr result_text text_number = {0, "", "", ARGUMENT_CODE, REFUSAL_UNSAID};

const result_text& find_text(uint32_t code) {
    for (const result_text& row : result_texts) {
        if (row.code == code) {
            return row;
        }
    }
    return text_number;
}

void append_argument(const drive* slot, const result_text& row, char* text, size_t room) {
    if (row.argument == ARGUMENT_IMAGE) {
        std::snprintf(text, room, "%s", slot->record->image_name);
    } else if (row.argument == ARGUMENT_CODE) {
        std::snprintf(text, room, "%d", static_cast<int>(slot->result));
    } else if (row.argument == ARGUMENT_USERS) {
        std::snprintf(text, room, "%s)", slot->users);
    } else {
        text[0] = '\0';
    }
}

void report_result(const drive* slot, const result_text& row) {
    char argument[32];
    append_argument(slot, row, argument, sizeof(argument));
    std::printf("%s%s", row.screen, argument);
    TRACE_LOG("%s%s", row.log, argument);
}

int print_first_half(const drive* slot, int index) {
    const _pd_info* pd = slot->pd;
    return report_texts(" %2d A:%3d S:%3d %s:%s-%s SNo:%8s ", index, static_cast<int>(pd->ctrl->ctrl_num),
                        pd->device_id, pd->part_number, pd->dummy, pd->fru, pd->serial_number);
}

void print_refusal(const drive* slot) {
    const result_text& row = find_text(slot->result);
    if (row.refusal == REFUSAL_SAID || (row.refusal == REFUSAL_IN_CHECK && slot->check != 0)) {
        report_result(slot, row);
    } else if (row.refusal == REFUSAL_OF_FLASH) {
        char text[text_of_result_size];
        report_texts("Flash: %s", text_of_result(slot, text));
    } else {
        report("Flash: Latest");
    }
}

void print_second_half(const drive* slot) {
    report_texts("FW:%s size:%dGB ", slot->pd->code_level, slot->pd->size);
    switch (slot->outcome) {
        case OUTCOME_NOT_IN_PROFILE:
            report("NS");
            break;
        case OUTCOME_REFUSED:
            print_refusal(slot);
            break;
        case OUTCOME_FAILED:
            report("Flash: Fail(");
            report_result(slot, find_text(slot->result));
            report(")");
            break;
        case OUTCOME_DUE:
            report("Flash: Due(%s)", slot->record->fw_level);
            break;
        case OUTCOME_UPDATED:
            report("Flash: Success");
            break;
        default:
            report("Flash: Latest");
            break;
    }
    report("\n");
}

struct type_label {
    ctrl_type_t type;
    const char* label;
};

constexpr type_label type_labels[] = {
    {CTRL_TYPE_HOST, "HOST"}, {CTRL_TYPE_MR, "MR"},           {CTRL_TYPE_IR, "IR"},
    {CTRL_TYPE_IR2, "IR2"},   {CTRL_TYPE_IR3, "IR3"},         {CTRL_TYPE_IT, "IT"},
    {CTRL_TYPE_NVME, "NVMe"}, {CTRL_TYPE_MARVELL, "MARVELL"}, {CTRL_TYPE_RSTE, "RSTe"},
};

void clear_counters(_ctrl_info* ctrl) {
    ctrl->dev_found = 0;
    ctrl->flashed = 0;
    ctrl->flashed_sas = 0;
    ctrl->flashed_sata = 0;
    ctrl->flashed_nvme = 0;
    ctrl->failed = 0;
}

// A failure counts only among drives that were downloaded to.
void count_drive(const drive* slot) {
    _ctrl_info* ctrl = slot->pd->ctrl;
    ++ctrl->dev_found;
    if (slot->update != 1) {
        return;
    }
    switch (drive_kind(slot->pd->protocol)) {
        case DRIVE_SAS:
            ++ctrl->flashed_sas;
            break;
        case DRIVE_SATA:
            ++ctrl->flashed_sata;
            break;
        case DRIVE_NVME:
            ++ctrl->flashed_nvme;
            break;
        default:
            break;
    }
    ++ctrl->flashed;
    if (slot->failed == 1) {
        ++ctrl->failed;
    }
}

void add_counters(_ctrl_info* totals, const _ctrl_info* ctrl) {
    totals->dev_found = static_cast<uint16_t>(totals->dev_found + ctrl->dev_found);
    totals->flashed = static_cast<uint16_t>(totals->flashed + ctrl->flashed);
    totals->flashed_sas = static_cast<uint16_t>(totals->flashed_sas + ctrl->flashed_sas);
    totals->flashed_sata = static_cast<uint16_t>(totals->flashed_sata + ctrl->flashed_sata);
    totals->flashed_nvme = static_cast<uint16_t>(totals->flashed_nvme + ctrl->flashed_nvme);
    totals->failed = static_cast<uint16_t>(totals->failed + ctrl->failed);
}

void print_counters(const _ctrl_info* ctrl) {
    report("%3d         %3d %3d  %3d  %3d    %d", ctrl->dev_found, ctrl->flashed, ctrl->flashed_sas,
           ctrl->flashed_sata, ctrl->flashed_nvme, ctrl->failed);
}

}  // namespace

const char* label_of(ctrl_type_t type) {
    for (const type_label& row : type_labels) {
        if (row.type == type) {
            return row.label;
        }
    }
    return "Unknown";
}

const char* text_of_result(const drive* slot, char (&text)[text_of_result_size]) {
    const result_text& row = find_text(slot->result);
    const int length = std::snprintf(text, sizeof(text), "%s", row.screen);
    append_argument(slot, row, text + length, sizeof(text) - static_cast<size_t>(length));
    return text;
}

size_t print_drive_info(drive* slot, int half, int index) {
    TRACE_PRINT("Entering %s", __func__);
    int characters = 0;
    if (half == 0) {
        characters = print_first_half(slot, index);
    } else if (half == 1) {
        print_second_half(slot);
    }
    TRACE_PRINT("Exiting %s", __func__);
    return characters > 0 ? static_cast<size_t>(characters) : 0;
}

int print_update_result(flash* program) {
    TRACE_PRINT("Entering %s", __func__);
    for (uint32_t i = 0; i < program->ctrl_count; ++i) {
        clear_counters(&program->ctrl_list[i]);
    }
    for (uint32_t i = 0; i < program->drive_count; ++i) {
        count_drive(&program->drives[i]);
    }
    report("\n\nAda(Type)      DevFnd  Flashed(SAS SATA NVME) Failed\n");
    _ctrl_info totals = {};
    for (uint32_t i = 0; i < program->ctrl_count; ++i) {
        const _ctrl_info* ctrl = &program->ctrl_list[i];
        if (ctrl->pd_count != 0) {
            report("%2d", static_cast<int>(ctrl->ctrl_num));
            report("(%-7s)   ", label_of(ctrl->type));
            print_counters(ctrl);
            report("\n");
            add_counters(&totals, ctrl);
        }
    }
    report("         --------------------------------------------------\n");
    report("              ");
    print_counters(&totals);
    report(" Error(s)\n");
    program->error_count = totals.failed;
    TRACE_PRINT("Exiting %s, rc = %d", __func__, 0);
    return 0;
}

int print_check_result(flash* program) {
    TRACE_PRINT("Entering %s", __func__);
    int counts[outcome_count] = {};
    for (uint32_t i = 0; i < program->drive_count; ++i) {
        ++counts[program->drives[i].outcome];
    }
    report("\n check %d (due:%d latest:%d refused:%d failed:%d NS:%d)\n\n",
           static_cast<int>(program->drive_count), counts[OUTCOME_DUE], counts[OUTCOME_LATEST],
           counts[OUTCOME_REFUSED], counts[OUTCOME_FAILED], counts[OUTCOME_NOT_IN_PROFILE]);
    program->error_count = static_cast<uint16_t>(counts[OUTCOME_FAILED]);
    TRACE_PRINT("Exiting %s, rc = %d", __func__, counts[OUTCOME_DUE]);
    return counts[OUTCOME_DUE];
}

}  // namespace mirvok
