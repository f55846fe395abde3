#include "machine_file.h"

#include <fstream>
#include <regex>
#include <stdexcept>

namespace mirvok::lab {

namespace {

namespace fs = std::filesystem;

// "{}" in a text becomes the number, "{000}" the number with at least three digits.
std::string numbered(const std::string& text, uint64_t number) {
    static const std::regex place("\\{(0*)\\}");
    std::string result;
    auto from = text.begin();
    for (std::sregex_iterator at(text.begin(), text.end(), place), end; at != end; ++at) {
        const std::string digits = std::to_string(number);
        const auto width = static_cast<size_t>((*at)[1].length());
        result.append(from, (*at)[0].first);
        result.append(digits.size() < width ? width - digits.size() : 0, '0').append(digits);
        from = (*at)[0].second;
    }
    return result.append(from, text.end());
}

json numbered(const json& value, uint64_t number) {
    if (value.is_string()) {
        return numbered(value.get<std::string>(), number);
    }
    json result = value;
    if (value.is_structured()) {
        for (json& element : result) {
            element = numbered(element, number);
        }
    }
    return result;
}

// Calls `put` with every repetition of an element, and its number.
template <typename F>
void repeat(const json& element, F put) {
    const uint64_t first = number_of(element, "first", 0);
    if (!element.contains("repeat")) {
        put(element, first);
        return;
    }
    for (uint64_t i = 0; i < number_of(element, "repeat", 1); ++i) {
        put(numbered(element, first + i), first + i);
    }
}

json expanded_drives(const json& drives) {
    json result = json::object();
    for (const auto& [name, self] : drives.items()) {
        const std::string pattern = name;
        repeat(self, [&](const json& d, uint64_t number) { result[numbered(pattern, number)] = d; });
    }
    return result;
}

json expanded_list(const json& list) {
    json result = json::array();
    for (const json& element : list) {
        repeat(element, [&](const json& e, uint64_t /*number*/) { result.push_back(e); });
    }
    for (json& element : result) {
        if (element.contains("drives")) {
            element["drives"] = expanded_list(element["drives"]);
        }
    }
    return result;
}

void check_fault(const json& fault, const json& drives) {
    static const std::regex of_library("(status|after):\\w+|zeros|ones|random|half");
    static const std::regex of_drive(
        "( *(errno:[A-Z]+|(check|sense):\\w\\w/\\w\\w/\\w\\w|(status|nvme|host|driver):\\d\\w*|signal:[A-Z]+|"
        "zeros|ones|random|half|done|vanish))+");
    const bool library = fault.contains("library");
    if (!std::regex_match(text_of(fault, "answer", ""), library ? of_library : of_drive)) {
        throw std::runtime_error("fault " + fault.dump() + ": no answer of a " +
                                 (library ? "library" : "drive"));
    }
    if (const std::string name = text_of(fault, "drive", ""); !name.empty() && !drives.contains(name)) {
        throw std::runtime_error("fault " + fault.dump() + ": there is no such drive");
    }
}

void check(const json& machine) {
    static const std::vector<std::string> protocols = {"sata", "sas", "nvme"};
    for (const auto& [name, self] : machine["drives"].items()) {
        if (std::ranges::find(protocols, text_of(self, "protocol", "")) == protocols.end()) {
            throw std::runtime_error("drive " + name + ": \"protocol\" must be sata, sas or nvme");
        }
    }
    const json nodes = machine.value("nodes", json::object());
    for (const auto& [node, name] : nodes.items()) {
        if (!machine["drives"].contains(name.get<std::string>())) {
            throw std::runtime_error("node " + node + ": there is no drive " + name.dump());
        }
    }
    for (const json& controller : machine.value("controllers", json::array())) {
        for (const json& entry : controller.value("drives", json::array())) {
            if (entry.contains("drive") && !machine["drives"].contains(entry["drive"].get<std::string>())) {
                throw std::runtime_error("controller: there is no drive " + entry["drive"].dump());
            }
        }
    }
    for (const json& fault : machine.value("faults", json::array())) {
        check_fault(fault, machine["drives"]);
    }
}

// A controller reset has happened since the last run.
void activate_firmware(const fs::path& path) {
    json state = json::object();
    if (std::ifstream file(path); file) {
        state = json::parse(file);
    }
    for (auto& [name, lasting] : state.items()) {
        if (lasting.contains("next_level")) {
            lasting["level"] = lasting["next_level"];
            lasting.erase("next_level");
        }
    }
    std::ofstream(path) << state.dump(1) << '\n';
}

}  // namespace

json prepare_home(const fs::path& file, const std::vector<std::string>& faults, const fs::path& home,
                  bool fresh) {
    std::ifstream stream(file);
    if (!stream) {
        throw std::runtime_error("cannot open " + file.string());
    }
    json machine = json::parse(stream, nullptr, true, true);
    machine["drives"] = expanded_drives(machine.value("drives", json::object()));
    machine["controllers"] = expanded_list(machine.value("controllers", json::array()));
    for (const std::string& fault : faults) {
        machine["faults"].push_back(json::parse(fault));
    }
    check(machine);
    if (fresh) {
        fs::remove_all(home);
    }
    fs::create_directories(home / "images");
    activate_firmware(home / "state.json");
    std::ofstream(home / "machine.json") << machine.dump(1) << '\n';
    std::ofstream(home / "journal", std::ios::trunc).flush();
    return machine;
}

}  // namespace mirvok::lab
