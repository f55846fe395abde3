# Turns reports of schema 2 into metrics for node_exporter's textfile collector:
#
#   jq -rs -f mirvok.jq check.json smart.json >mirvok.prom
#
# Anything that is no such report ends it with an error and without output, and so do reports of runs that ended early alone.
# What is null in a report has no sample. No series is there twice, whatever drives say of themselves, since the collector drops
# a file with one that is.

def checked:
    if type == "object" and (.tool.name? // "") == "mirvok" and .schema == 2 and (.operation | IN("find", "flash", "smart"))
    then . else error("not a report of mirvok, schema 2") end;

# A run that ended early, as without a profile or by a signal, has drives missing: they are not to look as if all were well.
def whole: if .operation == "flash" then (.exit_status | numbers) < 4 else .exit_status == 0 end;

def operation: if .operation == "flash" and .check then "check" else .operation end;

# Label values: printable ASCII, as a program's screen shows it.
def printable: if type == "string" then gsub("[^ -~]"; "?") elif . == null then "" else tostring end;
def rendered: to_entries | map("\(.key)=\"\(.value | printable | gsub("\\\\"; "\\\\") | gsub("\""; "\\\""))\"") | "{\(join(","))}";

def identity: {
    serial_number: ([.serial_number, .device_serial, ""] | map(select(. != "" and . != null)) | .[0]),
    product_id, controller, device_id
};

def metric($name; $kind; $help; samples):
    [samples | select(.value | type == "number" and (isnan | not))
        | { labels: (.labels | rendered), value }] | unique_by(.labels)
    | select(length > 0)
    | "# HELP \($name) \($help)", "# TYPE \($name) \($kind)", (.[] | "\($name)\(.labels) \(.value)");

def of_report(value): .[] | { labels: { operation: operation }, value: value };
def of_drive(value): .[].drives[] | { labels: identity, value: value };
# One sample for each name of a set: 1 where it is what `chosen` gives, or among it.
def of_set($key; $names; chosen):
    .[].drives[] | . as $drive | [chosen] | select(length > 0) | . as $chosen | $names[] | . as $name
    | { labels: ($drive | identity + { ($key): $name }), value: (if any($chosen[]; . == $name) then 1 else 0 end) };

def flag: booleans | if . then 1 else 0 end;
def firmware_state:
    .flash | objects
    | if .pending_reset == true or .activation == "pending_reset" then "pending_reset"
      elif .outcome == "updated" then "latest" else .outcome end;

map(checked | select(whole)) | if length == 0 then error("no report of a whole run") else . end
| [
    metric("mirvok_report_timestamp_seconds"; "gauge"; "When the report was written, by the clock of the computer.";
        of_report(.end | try fromdateiso8601 catch null)),
    metric("mirvok_report_exit_status"; "gauge"; "Exit status of the run that wrote the report."; of_report(.exit_status)),
    metric("mirvok_report_drives"; "gauge"; "Drives that the report lists."; of_report(.drives | length)),
    metric("mirvok_report_left_out_drives"; "gauge"; "Drives that were found and are not listed, by reason.";
        .[] | ("duplicate", "identify_failed", "not_in_profile", "not_selected") as $reason
        | { labels: { operation: operation, reason: $reason }, value: (.left_out | map(select(.reason == $reason)) | length) }),

    metric("mirvok_drive_info"; "gauge"; "What a drive is, where it is and the firmware level that it runs; always 1.";
        map(.drives[]) | unique_by(identity)[]
        | { labels: (identity + { node, protocol, vendor_id, part_number, code_level: (.flash.level_after // .code_level), level_prescribed: .flash.level_prescribed }),
            value: 1 }),
    metric("mirvok_drive_firmware_state"; "gauge"; "1 for the state that the firmware of a drive is in, 0 for the others.";
        of_set("state"; ["latest", "due", "pending_reset", "refused", "failed", "not_in_profile"]; firmware_state)),

    metric("mirvok_drive_temperature_celsius"; "gauge"; "Temperature of a drive."; of_drive(.smart.temperature_celsius)),
    metric("mirvok_drive_temperature_max_celsius"; "gauge"; "Temperature that a drive is made for at most.";
        of_drive(.smart.temperature_max_celsius)),
    metric("mirvok_drive_life_remaining_ratio"; "gauge"; "Life that a drive has left, 1 when new.";
        of_drive(.smart.life_remaining_percent | numbers / 100)),
    metric("mirvok_drive_life_threshold_ratio"; "gauge"; "Life left at which a drive is to be replaced.";
        of_drive(.smart.life_threshold_percent | numbers / 100)),
    metric("mirvok_drive_written_bytes_total"; "counter"; "Bytes that the host has written."; of_drive(.smart.written_bytes)),
    metric("mirvok_drive_warranty_bytes"; "gauge"; "Bytes of writing that the warranty covers."; of_drive(.smart.warranty_bytes)),
    metric("mirvok_drive_predictive_failure"; "gauge"; "1 where a SATA drive predicts its own failure.";
        of_drive(.smart.predictive_failure | flag)),

    metric("mirvok_drive_critical_warning"; "gauge"; "1 for each critical warning that an NVMe drive gives, 0 for the others.";
        of_set("warning"; ["spare_below_threshold", "temperature_exceeded", "reliability_degraded", "read_only", "backup_failed",
            "persistent_memory_unreliable", "reserved_6", "reserved_7"]; .smart.health.critical_warning | arrays | ., .[])),
    metric("mirvok_drive_available_spare_ratio"; "gauge"; "Spare capacity that an NVMe drive has left, 1 when new.";
        of_drive(.smart.health.available_spare_percent | numbers / 100)),
    metric("mirvok_drive_available_spare_threshold_ratio"; "gauge"; "Spare capacity below which an NVMe drive warns.";
        of_drive(.smart.health.available_spare_threshold_percent | numbers / 100)),
    metric("mirvok_drive_media_errors_total"; "counter"; "Errors of medium and data integrity of an NVMe drive.";
        of_drive(.smart.health.media_errors)),
    metric("mirvok_drive_unsafe_shutdowns_total"; "counter"; "Times that power went without notice to an NVMe drive.";
        of_drive(.smart.health.unsafe_shutdowns)),
    metric("mirvok_drive_power_on_seconds_total"; "counter"; "Time that a drive has been powered on.";
        of_drive(.smart.health.power_on_hours | numbers * 3600))
] | .[]
