#include "files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace mirvok {

namespace {

namespace fs = std::filesystem;

// Four times the longest file of the largest kind.
constexpr size_t largest_file = size_t{32} << 20;

int fill(int descriptor, const std::vector<uint8_t>& bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t written = write(descriptor, bytes.data() + done, bytes.size() - done);
        if (written < 0 && errno != EINTR) {
            return 1;
        }
        done += written > 0 ? static_cast<size_t>(written) : 0;
    }
    return 0;
}

// What the file has now, or what the process gives to new files.
mode_t file_mode(const char* path) {
    struct stat status = {};
    if (stat(path, &status) == 0) {
        return status.st_mode & 0777;
    }
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

}  // namespace

int read_file(const std::string& path, std::vector<uint8_t>& bytes, std::string& error) {
    std::FILE* file = path == "-" ? stdin : std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        error = std::strerror(errno);
        return 1;
    }
    uint8_t chunk[65536];
    size_t got = 0;
    do {
        got = std::fread(chunk, 1, sizeof(chunk), file);
        bytes.insert(bytes.end(), chunk, chunk + got);
    } while (got > 0 && bytes.size() <= largest_file);
    if (std::ferror(file) != 0) {
        error = std::strerror(errno);
    } else if (bytes.size() > largest_file) {
        error = "more than " + std::to_string(largest_file) + " bytes";
    }
    if (file != stdin) {
        std::fclose(file);
    }
    return error.empty() ? 0 : 1;
}

int write_file(const std::string& path, const std::vector<uint8_t>& bytes, std::string& error) {
    if (path == "-") {
        if (fill(STDOUT_FILENO, bytes) != 0) {
            error = std::strerror(errno);
        }
        return error.empty() ? 0 : 1;
    }
    std::error_code code;
    fs::path target = path;
    if (fs::is_symlink(target, code)) {
        target = fs::canonical(path, code);
        if (code) {
            error = code.message();
            return 1;
        }
    }
    if (fs::exists(target, code) && !fs::is_regular_file(target, code)) {
        error = "not a regular file";
        return 1;
    }
    std::string temporary = target.string() + ".XXXXXX";
    const int descriptor = mkstemp(temporary.data());
    if (descriptor < 0) {
        error = std::strerror(errno);
        return 1;
    }
    const bool failed = fill(descriptor, bytes) != 0 || fsync(descriptor) != 0 ||
                        fchmod(descriptor, file_mode(target.c_str())) != 0 ||
                        std::rename(temporary.c_str(), target.c_str()) != 0;
    if (failed) {
        error = std::strerror(errno);
        unlink(temporary.c_str());
    }
    close(descriptor);
    return failed ? 1 : 0;
}

}  // namespace mirvok
