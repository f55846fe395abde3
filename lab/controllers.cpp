#include "controllers.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>

#include "run.h"

namespace mirvok::lab {

namespace {

bool does(const std::string& file, const char* deed) {
    const json options = the_machine().description.value("libraries", json::object());
    const json deeds = options.value(file, json::object()).value("does", json::array());
    return std::ranges::find(deeds, deed) != deeds.end();
}

}  // namespace

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

void begin_life(const std::string& file, void* (*life)(void*)) {
    for (int descriptor = 0; descriptor <= 2 && does(file, "close-standard"); ++descriptor) {
        close(descriptor);
    }
    if (does(file, "unblock")) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
    }
    pthread_t thread{};
    if (does(file, "thread") && pthread_create(&thread, nullptr, life, nullptr) == 0) {
        pthread_detach(thread);
    }
}

void end_life(const std::string& file) {
    if (does(file, "crash")) {
        journal(file + " crashes");
        std::abort();
    }
}

bool demand(bool holds, const std::string& request, const std::string& what) {
    if (!holds) {
        journal("lab: VIOLATION " + request + ": " + what);
    }
    return holds;
}

reply run_behind_controller(drive& d, const scsi_command& c) {
    demand(gettid() == getpid(), "library", "called by a thread that has not loaded it");
    machine_lock().unlock();
    take_time(d);
    machine_lock().lock();
    reply r = run_scsi(d, "", c);
    if (r.sense.size() > 3 && r.sense[0] == 0x72 && r.sense[1] == 0x01 && r.sense[3] == 0x1D) {
        r.status = 0;
    }
    return r;
}

}  // namespace mirvok::lab
