// mirvok-profile: makes the binary data files of mirvok from JSON, prints them as JSON, and checks what they
// say.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>

#include "checks.h"
#include "file_layout.h"
#include "files.h"
#include "json_form.h"

namespace {

using namespace mirvok;

enum exit_status {
    EXIT_DONE = 0,
    EXIT_FAULT = 1,    // a file is at fault, or check found something
    EXIT_TROUBLE = 2,  // wrong usage, or check cannot read its file
};

struct arguments {
    std::string kind;
    std::string input;
    std::string output;
    std::string images;
    bool json = false;
};

int complain(const std::string& file, const std::string& message) {
    std::fprintf(stderr, "mirvok-profile: %s: %s\n", file.c_str(), message.c_str());
    return EXIT_FAULT;
}

int print(const std::string& text) {
    if (std::fputs(text.c_str(), stdout) == EOF || std::fflush(stdout) != 0) {
        return complain("standard output", "cannot be written");
    }
    return EXIT_DONE;
}

int run_build(const arguments& given) {
    record_set set = {find_file_kind(given.kind), {}};
    std::vector<uint8_t> json;
    std::string error;
    if (read_file(given.input, json, error) != 0) {
        return complain(given.input, error);
    }
    std::vector<std::string> errors;
    if (records_from_json(json, set, errors) != 0) {
        for (const std::string& line : errors) {
            complain(given.input, line);
        }
        return EXIT_FAULT;
    }
    if (write_file(given.output, frame_records(set), error) != 0) {
        return complain(given.output, error);
    }
    return EXIT_DONE;
}

int load(const arguments& given, record_set& set) {
    std::vector<uint8_t> file;
    std::string error;
    if (read_file(given.input, file, error) != 0 || take_records(file, set, error) != 0) {
        return complain(given.input, error);
    }
    return EXIT_DONE;
}

int run_dump(const arguments& given) {
    record_set set = {find_file_kind(given.kind), {}};
    return load(given, set) == EXIT_DONE ? print(records_to_json(set)) : EXIT_FAULT;
}

int run_check(const arguments& given) {
    record_set set = {find_file_kind(given.kind), {}};
    if (load(given, set) != EXIT_DONE) {
        return EXIT_TROUBLE;
    }
    const auto beside = std::filesystem::path(given.input).parent_path() / "files";
    const auto findings = check_records(set, given.images.empty() ? beside.string() : given.images);
    std::string text;
    for (const finding& line : findings) {
        text += given.input + ": record " + std::to_string(line.record) + ": " + line.field + ": " +
                line.message + "\n";
    }
    if (print(given.json ? findings_to_json(*set.kind, findings) : text) != EXIT_DONE) {
        return EXIT_TROUBLE;
    }
    return findings.empty() ? EXIT_DONE : EXIT_FAULT;
}

std::string footer() {
    std::string text = R"(The file name - is standard input or output.

JSON: an array of records, each an object. A field left out is 0 or empty. The characters U+0001 to
U+00FF of a text stand for the bytes 01h to FFh, so "\u00e9" is the byte E9h.
)";
    for (const file_kind& kind : file_kinds()) {
        text += "\n" + describe_record(kind);
    }
    return text + R"(
Exit status: 0 done; 1 build or dump: a file is at fault, or cannot be read or written; check: there
are findings; 2 wrong usage, or check: the file cannot be read or is malformed, or the findings
cannot be written.)";
}

int run(int argc, char** argv) {
    CLI::App app("Makes the data files of mirvok from JSON, prints them as JSON, and checks them.",
                 "mirvok-profile");
    app.set_version_flag("--version", "mirvok-profile " MIRVOK_VERSION);
    app.require_subcommand(1);
    app.footer(footer());  // before the commands, which take it over
    arguments given;
    std::vector<std::string> names;
    for (const file_kind& kind : file_kinds()) {
        names.emplace_back(kind.name);
    }
    const auto add_command = [&](const char* name, const char* purpose, const char* input) {
        CLI::App* command = app.add_subcommand(name, purpose);
        command->add_option("kind", given.kind, "kind of data file")->required()->check(CLI::IsMember(names));
        command->add_option(input, given.input, "file to read")->required();
        return command;
    };
    CLI::App* build = add_command("build", "make OUT.bin from the records in IN.json", "IN.json");
    build->add_option("OUT.bin", given.output, "file to make or replace")->required();
    CLI::App* dump = add_command("dump", "print the records of FILE.bin as JSON", "FILE.bin");
    CLI::App* check = add_command("check", "print what will not work in FILE.bin, a line each", "FILE.bin");
    check
        ->add_option("--files", given.images,
                     "directory of the firmware images; by default files, beside FILE.bin or, where "
                     "that is standard input, in the working directory")
        ->type_name("DIR")
        ->check(CLI::ExistingDirectory);
    check->add_flag("--json", given.json, "print the findings as a JSON array");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_DONE : EXIT_TROUBLE;
    }
    if (check->parsed()) {
        return run_check(given);
    }
    return dump->parsed() ? run_dump(given) : run_build(given);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& exception) {
        complain("failed", exception.what());
        return EXIT_TROUBLE;
    }
}
