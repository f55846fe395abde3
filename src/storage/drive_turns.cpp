#include "storage/drive_turns.h"

#include <condition_variable>
#include <cstring>
#include <mutex>

#include "common/crew.h"
#include "common/text.h"

namespace mirvok {

namespace {

std::mutex lock;
std::condition_variable turn_ended;
drive_turn turns[max_drives];
uint32_t turn_count = 0;

drive_turn* find_turn(const _pd_info* pd) {
    for (uint32_t i = 0; i < turn_count; ++i) {
        if (std::strcmp(turns[i].device_serial, pd->device_serial) == 0 &&
            std::strcmp(turns[i].product_id, pd->product_id) == 0) {
            return &turns[i];
        }
    }
    if (turn_count == max_drives) {
        return nullptr;
    }
    drive_turn* turn = &turns[turn_count++];
    copy_text(turn->device_serial, pd->device_serial);
    copy_text(turn->product_id, pd->product_id);
    return turn;
}

}  // namespace

drive_turn* begin_turn(const _pd_info* pd) {
    if (get_jobs() < 2) {
        return nullptr;
    }
    std::unique_lock held(lock);
    drive_turn* turn = find_turn(pd);
    if (turn != nullptr) {
        turn_ended.wait(held, [turn] { return !turn->taken; });
        turn->taken = true;
    }
    return turn;
}

void end_turn(drive_turn* turn) {
    if (turn != nullptr) {
        const std::lock_guard held(lock);
        turn->taken = false;
        turn_ended.notify_all();
    }
}

}  // namespace mirvok
