// The closed controller libraries and the sleep, played inside the test program: every call is shown among
// the program's own traces and answered from a table.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "storage/device_model.h"

using bytes = std::vector<uint8_t>;
using patches = std::vector<std::pair<size_t, bytes>>;  // what a call writes into its buffer, and where

// The names that dlopen or dlsym do not find.
extern std::set<std::string> missing;

// What a call returns and writes, by "type.command" or by the Marvell entry. The last answer is given again
// and again; without any a call succeeds and writes nothing.
extern std::map<std::string, std::deque<std::pair<uint32_t, patches>>> answers;

// A drive, device 10Ch, and its controller, number 105h.
extern mirvok::_ctrl_info ctrl;
extern mirvok::_pd_info pd;

class played_test : public testing::Test {
protected:
    void SetUp() override {
        missing.clear();
        answers.clear();
        pd = {};
        pd.device_id = 0x10C;
        pd.ctrl = &ctrl;
    }
};

// Bytes in hexadecimal, runs of four and more as "00*12".
std::string hex(const void* data, size_t length);

// Runs `action` with tracing on and returns what was traced and called, " | " after each, and "= result; ".
// Entering and exiting lines are left out, rows of hex dumps are shown as ". ".
std::string run(const std::function<int()>& action);
