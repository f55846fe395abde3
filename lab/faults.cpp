// Faults laid over a command's answer, and the journal's words for commands and answers.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iterator>
#include <random>
#include <sstream>
#include <thread>

#include "commands.h"
#include "run.h"

namespace mirvok::lab {

namespace {

struct number_name {
    int number;
    const char* name;
};

constexpr number_name errors[] = {
    {EIO, "EIO"},       {ENODEV, "ENODEV"},       {ENOENT, "ENOENT"}, {EINTR, "EINTR"},
    {EBUSY, "EBUSY"},   {EACCES, "EACCES"},       {EPERM, "EPERM"},   {ENOMEM, "ENOMEM"},
    {EINVAL, "EINVAL"}, {EFAULT, "EFAULT"},       {EAGAIN, "EAGAIN"}, {ENXIO, "ENXIO"},
    {ENOTTY, "ENOTTY"}, {ETIMEDOUT, "ETIMEDOUT"}, {ENOSYS, "ENOSYS"}, {EMSGSIZE, "EMSGSIZE"},
};

constexpr number_name signals[] = {
    {SIGALRM, "ALRM"}, {SIGUSR1, "USR1"}, {SIGPWR, "PWR"},   {SIGTTIN, "TTIN"}, {SIGINT, "INT"},
    {SIGTERM, "TERM"}, {SIGHUP, "HUP"},   {SIGTSTP, "TSTP"}, {SIGQUIT, "QUIT"}, {SIGKILL, "KILL"},
    {SIGPIPE, "PIPE"}, {SIGSTOP, "STOP"}, {SIGALRM, "ALRM"}, {SIGUSR1, "USR1"}, {SIGTTIN, "TTIN"},
};

std::vector<std::string> words_of(const std::string& answer) {
    std::istringstream stream(answer);
    return {std::istream_iterator<std::string>(stream), {}};
}

// Whether a word of an answer stands for a command that is not carried out.
bool ends_early(const std::string& word) {
    static const std::vector<std::string> kinds = {"errno", "check", "sense", "status", "nvme", "host"};
    return std::ranges::count(kinds, word.substr(0, word.find(':'))) != 0;
}

// Whether a drive's own answer, that of the registers excepted, is a refusal.
bool was_refused(const reply& r) {
    return r.error != 0 || (r.status != 0 && (r.sense.size() < 3 || r.sense[r.sense[0] >= 0x72 ? 1 : 2] > 1));
}

void apply(reply& r, const std::string& word, uint32_t length) {
    const std::string kind = word.substr(0, word.find(':'));
    const std::string value = word.substr(word.find(':') + 1);
    if (kind == "errno") {
        r.error = error_number(value);
    } else if (kind == "check" || kind == "sense") {
        const bytes codes = bytes_of(value);
        const reply failed = check_condition(codes.at(0), codes.at(1), codes.at(2));
        r.sense = failed.sense;
        r.status = kind == "check" ? failed.status : r.status;
    } else if (kind == "status" || kind == "nvme") {
        r.status = static_cast<uint32_t>(std::stoul(value, nullptr, 0));
    } else if (kind == "host" || kind == "driver") {
        (kind == "host" ? r.host : r.driver) = static_cast<uint8_t>(std::stoul(value, nullptr, 0));
    } else {
        spoil(r.data, kind, length);
    }
}

}  // namespace

void spoil(bytes& data, const std::string& kind, size_t length) {
    if (kind == "zeros" || kind == "ones") {
        data.assign(length, kind == "ones" ? 0xFF : 0);
    } else if (kind == "random") {
        std::mt19937 generator(1);  // NOLINT: the same bytes in every run
        data.resize(length);
        std::ranges::generate(data, [&] { return static_cast<uint8_t>(generator()); });
    } else if (kind == "half") {
        data.resize(data.size() / 2);
    }
}

std::string error_name(int number) {
    const auto* const row =
        std::ranges::find_if(errors, [&](const number_name& e) { return e.number == number; });
    return row == std::end(errors) ? std::to_string(number) : row->name;
}

int error_number(const std::string& name) {
    const auto* const row =
        std::ranges::find_if(errors, [&](const number_name& e) { return name == e.name; });
    return row == std::end(errors) ? EIO : row->number;
}

void raise_as(const std::string& answer) {
    const auto* const row = std::ranges::find_if(
        signals, [&](const number_name& s) { return answer == std::string("signal:") + s.name; });
    if (row != std::end(signals)) {
        journal(std::string("signal ") + row->name);
        const pid_t program = the_machine().program;
        kill(program == 0 ? getpid() : program, row->number);  // the process's, as a shell's kill is
    }
}

void take_time(const drive& d) {
    std::this_thread::sleep_for(std::chrono::milliseconds(number_of(d.self, "delay", 0)));
}

reply run_with_faults(drive& d, const std::string& node, const std::string& command, uint32_t length,
                      const std::function<reply()>& answer) {
    json subject = {{"drive", d.name}};
    if (!node.empty()) {
        subject["node"] = node;
    }
    const std::vector<std::string> words = words_of(text_of(due_fault(subject, command), "answer", ""));
    reply r;
    d.vanished = d.vanished || std::ranges::count(words, "vanish") != 0;
    if (d.vanished) {
        r.error = ENODEV;
        return r;
    }
    for (const std::string& word : words) {
        raise_as(word);
    }
    if (std::ranges::none_of(words, ends_early) || std::ranges::count(words, "done") != 0) {
        r = answer();
        if (was_refused(r)) {
            return r;
        }
    }
    for (const std::string& word : words) {
        apply(r, word, length);
    }
    r.data.resize(std::min<size_t>(r.data.size(), length));
    return r;
}

std::string describe_data(direction way, uint32_t length, const bytes& data) {
    if (way == direction::in) {
        return "in " + std::to_string(length);
    }
    if (way == direction::none) {
        return length == 0 ? "none" : "none " + std::to_string(length);
    }
    char crc[16];
    std::snprintf(crc, sizeof(crc), "%08X", crc32_of(data.data(), data.size()));
    return "out " + std::to_string(length) + " crc=" + crc;
}

std::string describe(const scsi_command& c) {
    return name_of(c) + " cdb=" + hex_of(c.cdb.data(), c.cdb.size(), " ") + " " +
           describe_data(c.way, c.length, c.data);
}

std::string describe(const scsi_command& c, const reply& r) {
    if (r.error != 0) {
        return error_name(r.error);
    }
    const auto status = static_cast<uint8_t>(r.status);
    std::string text = hex_of(&status, 1);
    if (r.host != 0) {
        text += " host " + hex_of(&r.host, 1);
    }
    if (r.driver != 0) {
        text += " driver " + hex_of(&r.driver, 1);
    }
    if (r.sense.size() > 13) {
        const bool descriptor = r.sense[0] >= 0x72;
        const uint8_t codes[] = {r.sense[descriptor ? 1 : 2], r.sense[descriptor ? 2 : 12],
                                 r.sense[descriptor ? 3 : 13]};
        text += " sense " + hex_of(codes, 3, "/");
    }
    if (c.way == direction::in && r.data.size() < c.length) {
        text += " resid " + std::to_string(c.length - r.data.size());
    }
    return text;
}

std::string describe(const nvme_command& c, const std::string& extra, const reply& r) {
    const auto opcode = static_cast<uint8_t>(c.opcode);
    return name_of(c) + " op=" + hex_of(&opcode, 1) + " nsid=" + hex_number(c.nsid) +
           " cdw10=" + hex_number(c.cdw10) + " cdw11=" + hex_number(c.cdw11) + extra + " " +
           describe_data(way_of(c), c.length, c.data) + " = " +
           (r.error != 0    ? error_name(r.error)
            : r.status != 0 ? "0x" + hex_number(r.status)
                            : "0");
}

}  // namespace mirvok::lab
