#include "machine.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

namespace mirvok::lab {

namespace {

json read_json(const std::filesystem::path& path) {
    std::ifstream file(path);
    return file ? json::parse(file) : json::object();
}

machine* load_machine() {
    auto* m = new machine;
    const char* home = std::getenv(home_variable);
    if (home == nullptr) {
        return m;
    }
    m->home = home;
    m->description = read_json(m->home / "machine.json");
    const json state = read_json(m->home / "state.json");
    const json drives = m->description.value("drives", json::object());
    const json nodes = m->description.value("nodes", json::object());
    for (const auto& [name, self] : drives.items()) {
        drive& d = m->drives[name];
        d.name = name;
        d.self = self;
        d.lasting = state.value(name, json::object());
        d.attention = self.value("attention", false) ? attention_reset : 0;
        if (self.contains("node")) {
            m->nodes[self["node"].get<std::string>()] = name;
        }
    }
    for (const auto& [node, name] : nodes.items()) {
        m->nodes[node] = name.get<std::string>();
    }
    for (const json& rule : m->description.value("faults", json::array())) {
        m->faults.push_back({rule, 0});
    }
    return m;
}

bool matches(const json& rule, const json& subject, const std::string& command) {
    for (const char* key : {"drive", "node", "library"}) {
        if (rule.contains(key) && (!subject.contains(key) || rule[key] != subject[key])) {
            return false;
        }
    }
    if (subject.contains("library") && !rule.contains("library")) {
        return false;
    }
    const std::string wanted = rule.value("command", "any");
    // "any" means what travels to a drive: no opening of nodes, sleep or thread, no library's own requests.
    const bool travels =
        command != "open" && command != "sleep" && command != "thread" && !subject.contains("library");
    return wanted == command || (wanted == "any" && travels);
}

// The descriptor sits at the top of the allowed range, so that the program's own numbers stay natural.
int journal_descriptor() {
    const std::filesystem::path path = the_machine().home / "journal";
    const int low = openat(AT_FDCWD, path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const int top = static_cast<int>(std::min<rlim_t>(limit.rlim_cur, 1024)) - 1;
    const int high = fcntl(low, F_DUPFD_CLOEXEC, top);
    close(low);
    return high;
}

}  // namespace

machine& the_machine() {
    static machine* const m = load_machine();  // never destroyed: the library's end still writes the journal
    return *m;
}

std::recursive_mutex& machine_lock() {
    static auto* const lock = new std::recursive_mutex;
    return *lock;
}

drive* drive_named(const std::string& name) {
    auto& drives = the_machine().drives;
    const auto found = drives.find(name);
    return found == drives.end() ? nullptr : &found->second;
}

drive* drive_at(const std::string& node) {
    const auto& nodes = the_machine().nodes;
    const auto found = nodes.find(node);
    return found == nodes.end() ? nullptr : drive_named(found->second);
}

json due_fault(const json& subject, const std::string& command) {
    json due = json::object();
    for (fault& f : the_machine().faults) {
        if (!matches(f.rule, subject, command)) {
            continue;
        }
        const uint64_t first = number_of(f.rule, "nth", 1);
        const uint64_t count = number_of(f.rule, "count", 1);
        ++f.seen;
        if (due.empty() && f.seen >= first && (count == 0 || f.seen < first + count)) {
            due = f.rule;
        }
    }
    return due;
}

void remember(drive& d, const std::string& key, const json& value) {
    d.lasting[key] = value;
    json state = json::object();
    for (const auto& [name, other] : the_machine().drives) {
        if (!other.lasting.empty()) {
            state[name] = other.lasting;
        }
    }
    std::ofstream(the_machine().home / "state.json") << state.dump(1) << '\n';
}

std::string text_of(const json& object, const std::string& key, const std::string& fallback) {
    return object.contains(key) ? object[key].get<std::string>() : fallback;
}

uint64_t number_of(const json& object, const std::string& key, uint64_t fallback) {
    if (!object.contains(key)) {
        return fallback;
    }
    const json& value = object[key];
    return value.is_string() ? std::stoull(value.get<std::string>(), nullptr, 0) : value.get<uint64_t>();
}

std::string level_of(const drive& d) {
    return text_of(d.lasting, "level", text_of(d.self, "level", "0001"));
}

bool smart_on(const drive& d) {
    return d.lasting.value("smart", text_of(d.self, "smart", "on") == "on");
}

void journal(const std::string& line) {
    if (the_machine().home.empty()) {
        return;
    }
    static const int descriptor = journal_descriptor();
    const std::string whole = line + '\n';
    [[maybe_unused]] const ssize_t written = write(descriptor, whole.data(), whole.size());
}

}  // namespace mirvok::lab
