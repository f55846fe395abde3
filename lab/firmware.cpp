// The firmware that a drive takes: pieces in order, and a new level once an image of its description is
// whole.
#include <fstream>

#include "run.h"

namespace mirvok::lab {

namespace {

namespace fs = std::filesystem;

bool same_content(const fs::path& path, const bytes& content) {
    std::error_code error;
    if (fs::file_size(path, error) != content.size() || error) {
        return false;
    }
    bytes stored(content.size());
    std::ifstream file(path, std::ios::binary);
    file.read(reinterpret_cast<char*>(stored.data()), static_cast<std::streamsize>(stored.size()));
    return file.good() && stored == content;
}

// The description's entry for the image received, or an empty object.
json entry_received(const drive& d) {
    for (const json& entry : d.self.value("firmware", json::array())) {
        if (same_content(entry.at("image").get<std::string>(), d.received)) {
            return entry;
        }
    }
    return json::object();
}

}  // namespace

bool take_piece(drive& d, uint64_t offset, const bytes& piece) {
    if (offset == 0) {
        d.received.clear();
    }
    if (offset != d.received.size() || piece.empty()) {
        return false;
    }
    d.received.insert(d.received.end(), piece.begin(), piece.end());
    std::ofstream image(the_machine().home / "images" / (d.name + ".bin"),
                        std::ios::binary | (offset == 0 ? std::ios::trunc : std::ios::app));
    image.write(reinterpret_cast<const char*>(piece.data()), static_cast<std::streamsize>(piece.size()));
    return true;
}

bool activate(drive& d, const char* lasting_key) {
    const json entry = entry_received(d);
    if (entry.empty()) {
        return false;
    }
    d.received.clear();
    d.attention = d.self.value("attention", false) ? attention_microcode : 0;
    if (!entry.value("keeps_level", false)) {
        remember(d, lasting_key, entry.at("level"));
    }
    return true;
}

}  // namespace mirvok::lab
