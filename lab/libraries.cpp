#include "libraries.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>

namespace mirvok::lab {

namespace {

namespace fs = std::filesystem;

struct library_row {
    const char* type;
    const char* file;
};

constexpr library_row library_rows[] = {
    {"MR", "storelib.so"},      {"IR", "storelibir.so"}, {"IR2", "storelibir-2.so"},
    {"IR3", "storelibir-3.so"}, {"IT", "storelibit.so"}, {"MARVELL", "libmvraid.so"},
    {"MARVELL", "liblddf.so"},
};

// A copy of a library in which an entry point has another name, so that nobody finds it.
fs::path without_entries(const fs::path& original, const json& names, const fs::path& copy) {
    std::ifstream file(original, std::ios::binary);
    std::string content(std::istreambuf_iterator<char>(file), {});
    for (const json& entry : names) {
        const std::string name = '\0' + entry.get<std::string>() + '\0';
        for (size_t at = content.find(name); at != std::string::npos; at = content.find(name, at)) {
            content[at + 1] = '-';
        }
    }
    std::ofstream(copy, std::ios::binary) << content;
    return copy;
}

}  // namespace

std::vector<fs::path> lay_libraries(const json& machine, const fs::path& source, const fs::path& directory,
                                    const fs::path& home) {
    const json options = machine.value("libraries", json::object());
    std::set<std::string> files;
    for (const json& controller : machine.value("controllers", json::array())) {
        for (const library_row& row : library_rows) {
            if (controller.value("type", "") == row.type) {
                files.insert(row.file);
            }
        }
    }
    for (const auto& [file, option] : options.items()) {
        files.insert(file);
    }
    fs::create_directories(home / "path");
    fs::create_directories(home / "copies");
    std::vector<fs::path> links;
    for (const std::string& file : files) {
        const json option = options.value(file, json::object());
        const std::string where = option.value("where", "directory");
        const fs::path link = (where == "path" ? home / "path" : directory) / file;
        fs::remove(home / "path" / file);
        if (where == "nowhere") {
            continue;
        }
        if (fs::exists(fs::symlink_status(link)) && !fs::is_symlink(link)) {
            throw std::runtime_error(link.string() + " is in the way");
        }
        fs::remove(link);
        fs::path target = source / file;
        if (option.contains("missing")) {
            target = without_entries(target, option["missing"], home / "copies" / file);
        }
        fs::create_symlink(target, link);
        links.push_back(link);
    }
    return links;
}

}  // namespace mirvok::lab
