// mirvok-lab: runs a program in a machine that a JSON file describes.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>

#include "kernel.h"
#include "libraries.h"
#include "machine_file.h"

namespace {

namespace fs = std::filesystem;
using namespace mirvok::lab;

constexpr const char* footer = R"(
The program meets the machine's /dev/sg* and /dev/nvme* nodes and its controllers' libraries in place of the
host's. The state directory keeps
  state.json    the drives' firmware levels and SMART states, from run to run
  journal       every call that reached the machine, one line each, of the last run
  images/       the firmware image that each drive received last
lab/README.md describes machine files, faults and the journal. The exit status is the program's, or 128 and
the number of the signal that ended it.

Example: mirvok-lab --dir /tmp/work --fresh machine.json -- find --debug)";

[[noreturn]] void start(const fs::path& program, const fs::path& directory,
                        const std::vector<std::string>& arguments) {
    std::string name = program.string();
    std::vector<std::string> words = arguments;
    std::vector<char*> argv{name.data()};
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGQUIT, SIG_DFL);
    if (chdir(directory.c_str()) == 0) {
        execv(name.c_str(), argv.data());
    }
    std::cerr << "mirvok-lab: cannot run " << name << " in " << directory.string() << '\n';
    _exit(127);
}

int run_preloaded(const fs::path& home, const std::function<void()>& start_program) {
    const fs::path library = fs::read_symlink("/proc/self/exe").parent_path() / "libmirvok-lab.so";
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        setenv("LD_PRELOAD", library.c_str(), 1);
        setenv("LD_LIBRARY_PATH", (home / "path").c_str(), 1);
        setenv(home_variable, home.c_str(), 1);
        start_program();
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

int command(int argc, char** argv) {
    CLI::App app("Runs a program in the machine that MACHINE.json describes.", "mirvok-lab");
    app.footer(footer);
    fs::path program = fs::read_symlink("/proc/self/exe").parent_path() / "mirvok";
    fs::path directory = ".";
    fs::path home;
    fs::path file;
    bool fresh = false;
    bool kernel = false;
    std::vector<std::string> faults;
    std::vector<std::string> arguments;
    app.add_option("--program", program, "the program to run; mirvok beside this command by default")
        ->check(CLI::ExistingFile);
    app.add_option("--dir", directory, "its working directory; the present one by default")
        ->check(CLI::ExistingDirectory);
    app.add_option("--state", home, "the state directory; the working directory's name and .lab by default");
    app.add_flag("--fresh", fresh, "forget the state of earlier runs first");
    app.add_flag("--kernel", kernel, "offer the drives to this computer's kernel instead; as root");
    app.add_option("--fault", faults, "one more fault, a JSON object; may be given again")
        ->allow_extra_args(false);
    app.add_option("machine", file, "the machine file")->required()->option_text("MACHINE.json");
    app.add_option("arguments", arguments, "after --: the program's own")->option_text("ARGS...");
    CLI11_PARSE(app, argc, argv);
    directory = fs::canonical(directory);
    home = home.empty() ? fs::path(directory.string() + ".lab") : fs::absolute(home);
    program = fs::absolute(program);
    const json machine = prepare_home(file, faults, home, fresh);
    // An interruption typed at the terminal is the program's own affair.
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGQUIT, SIG_IGN);
    const auto start_program = [&] { start(program, directory, arguments); };
    if (kernel) {
        fs::current_path(directory);  // where the drives' images are
        return run_behind_kernel(home, start_program);
    }
    const fs::path stand_ins = fs::read_symlink("/proc/self/exe").parent_path() / "lab-libs";
    const std::vector<fs::path> links = lay_libraries(machine, stand_ins, directory, home);
    const int status = run_preloaded(home, start_program);
    for (const fs::path& link : links) {
        fs::remove(link);
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return command(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "mirvok-lab: %s\n", error.what());
        return 126;
    }
}
