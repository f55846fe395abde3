#include "raid/played_library.h"
#include "raid/storelib_library.h"

namespace {

using namespace mirvok;

class storelib : public played_test {};

std::string init() {
    return run([] {
        init_avago(lib_info_avago);
        int loaded = 0;
        for (const lib_info_entry& entry : lib_info_avago) {
            loaded = loaded * 10 + static_cast<int>(entry.loaded);
        }
        return loaded;
    });
}

std::string un_init() {
    return run([] { return un_init_avago(lib_info_avago), static_cast<int>(lib_info_avago[3].loaded); });
}

TEST_F(storelib, libraries_are_loaded_asked_and_released) {
    missing = {"storelib.so"};
    answers["0.4"] = {
        {0, {{0, {'1', '6', '.', '2'}}, {7, {'S', 'L', '7'}}}}, {9, {}}, {0, {{0, bytes(15, 'x')}}}};
    for (const std::string version : {"SL7.16.2", "", "xxxxxxxx.xxxxxxx"}) {
        EXPECT_EQ(
            init(),
            "open storelibir.so | 0.0 R c0 d0 68: 00*68 | no storelib.so | open ./storelib.so | 0.0 M c0 d0 "
            "260: 00*260 | open storelibir-2.so | 0.0 2 c0 d0 260: 00*260 | open storelibir-3.so | 0.0 3 c0 "
            "d0 260: 00*260 | open storelibit.so | 0.0 T c0 d0 260: 00*260 | 0.4 T c0 d0 15: 00*15 | " +
                (version.empty() ? "" : "library version:" + version + " | ") + "= 11111; ");
        EXPECT_EQ(lib_info_avago[4].version, version);
        EXPECT_EQ(un_init(),
                  "0.9 R c0 d0 0:  | close storelibir.so | 0.9 M c0 d0 0:  | close storelib.so | 0.9 3 c0 d0 "
                  "0:  | close storelibir-3.so | 0.9 2 c0 d0 0:  | close storelibir-2.so | 0.9 T c0 d0 0:  | "
                  "close storelibit.so | = 0; ");
        EXPECT_EQ(un_init(), "= 0; ");
    }
    // No entry, a failing init and no file: the three stay out.
    missing = {"storelibir.so", "ProcessLibCommand", "storelibit.so", "./storelibit.so"};
    answers = {{"0.0", {{0, {}}, {0x8001, {}}, {0, {}}}}, {"1.0", {{0xFFFFFFFF, {}}}}};
    EXPECT_EQ(init(),
              "no storelibir.so | open ./storelibir.so | 0.0 R c0 d0 68: 00*68 | open storelib.so | error: "
              "no ProcessLibCommand in storelib.so | close storelib.so | open storelibir-2.so | 0.0 2 c0 d0 "
              "260: 00*260 | init of storelibir-2.so failed, status: 32769 | close storelibir-2.so | open "
              "storelibir-3.so | 0.0 3 c0 d0 260: 00*260 | no storelibit.so | no ./storelibit.so | "
              "storelibit.so | Library 6 is not loaded | library version:. | = 110; ");
    const char* const calls[] = {"Unknown ctrl_type: 1 | = 0; ", "Library 2 is not loaded | = 0; ",
                                 "1.0 R c5 d6 0:  | = -1; ",     "Library 4 is not loaded | = 0; ",
                                 "1.0 3 c5 d6 0:  | = -1; ",     "Library 6 is not loaded | = 0; ",
                                 "Unknown ctrl_type: 7 | = 0; "};
    _SL_LIB_CMD_PARAM_T param = make_storelib_param(storelib_controller_info, 5, 6, nullptr, 0);
    for (uint32_t type = 1; type <= 7; ++type) {
        EXPECT_EQ(run([&] { return ProcessLibCommandCall(&param, type); }), calls[type - 1]);
    }
    EXPECT_EQ(run([] { return unload_avago_dlls(CTRL_TYPE_IR3), 0; }),
              "0.9 3 c0 d0 0:  | close storelibir-3.so | = 0; ");
    EXPECT_EQ(un_init(), "0.9 R c0 d0 0:  | close storelibir.so | = 0; ");
}

}  // namespace
