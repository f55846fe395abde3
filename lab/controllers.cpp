#include "controllers.h"

#include "run.h"

namespace mirvok::lab {

const std::vector<json>& controllers_of(const std::string& type) {
    static auto* const all = [] {
        auto* by_type = new std::map<std::string, std::vector<json>>;
        for (const json& controller : the_machine().description.value("controllers", json::array())) {
            (*by_type)[controller.value("type", "")].push_back(controller);
        }
        return by_type;
    }();
    return (*all)[type];
}

json entry_of(const json& controller, uint64_t device) {
    if (controller.contains("drives")) {
        for (const json& entry : controller["drives"]) {
            if (number_of(entry, "device_id", 0) == device) {
                return entry;
            }
        }
    }
    return json::object();
}

request_fault request_fault_of(const std::string& library, const std::string& command) {
    const std::string answer = text_of(due_fault({{"library", library}}, command), "answer", "");
    const size_t colon = answer.find(':');
    if (colon == std::string::npos) {
        return {0, 0, answer};
    }
    const auto status = static_cast<uint32_t>(std::stoul(answer.substr(colon + 1), nullptr, 0));
    return answer.starts_with("after:") ? request_fault{0, status, ""} : request_fault{status, 0, ""};
}

bool demand(bool holds, const std::string& request, const std::string& what) {
    if (!holds) {
        journal("lab: VIOLATION " + request + ": " + what);
    }
    return holds;
}

reply run_behind_controller(drive& d, const scsi_command& c) {
    take_time(d);
    reply r = run_scsi(d, "", c);
    if (r.sense.size() > 3 && r.sense[0] == 0x72 && r.sense[1] == 0x01 && r.sense[3] == 0x1D) {
        r.status = 0;
    }
    return r;
}

}  // namespace mirvok::lab
