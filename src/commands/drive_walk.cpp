#include "commands/drive_walk.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include "commands/drive_match.h"
#include "common/crew.h"
#include "common/diagnostics.h"
#include "common/progress.h"
#include "common/run_lock.h"
#include "common/signals.h"
#include "storage/drive_paths.h"
#include "storage/identification.h"
#include "storage/inventory.h"
#include "storage/vendor_checks.h"

namespace mirvok {

namespace {

bool is_selected(const drive_operation& operation, const void* program, const _pd_info* pd) {
    return operation.is_selected == nullptr || operation.is_selected(program, pd);
}

void leave_out_unselected(left_out_list* left_out, const _pd_info* pd) {
    TRACE_PRINT("not selected: A:%d S:%d", static_cast<int>(pd->ctrl->ctrl_num), pd->device_id);
    leave_out(left_out, pd, LEFT_OUT_NOT_SELECTED);
}

// The slot of an identified drive that is listed, or null. `result` is its identification's; the drives come
// in the table's order.
void* admit(const drive_operation& operation, void* program, _pd_info* pd, int result,
            left_out_list* left_out) {
    if (result == RESULT_IDENTIFY_FAILED && !operation.keeps_unidentified) {
        TRACE_PRINT("Get SATA Identify Fail.");
        leave_out(left_out, pd, LEFT_OUT_IDENTIFY_FAILED);
        return nullptr;
    }
    if (check_serial_number(pd) != 0) {
        if (operation.traces_duplicates) {
            TRACE_PRINT("duplicate");
        }
        leave_out(left_out, pd, LEFT_OUT_DUPLICATE);
        return nullptr;
    }
    if (!is_meant(pd)) {
        leave_out_unselected(left_out, pd);
        return nullptr;
    }
    void* slot = operation.look_up(program, pd);
    if (slot == nullptr) {
        leave_out(left_out, pd, LEFT_OUT_NOT_IN_PROFILE);
    }
    return slot;
}

// With jobs, lines are seen as soon as they are known; else identifications flush them.
void take(const drive_operation& operation, void* program, void* slot) {
    operation.take(program, slot);
    if (get_jobs() > 1) {
        std::fflush(stdout);
        end_at_signal();
    }
}

// Identifies one drive and has it dealt with.
void walk_drive(const drive_operation& operation, void* program, _pd_info* pd, left_out_list* left_out) {
    progress_step("identifying");
    const int result = get_pd_information(pd);
    void* slot = admit(operation, program, pd, result, left_out);
    if (slot == nullptr) {
        return;
    }
    if (operation.read != nullptr) {
        progress_step(operation.reading);
        operation.read(slot);
    }
    take(operation, program, slot);
}

// Where a drive of a crew's walk stands.
enum stage_t : uint8_t { STAGE_UNBEGUN, STAGE_BEGUN, STAGE_IDENTIFIED };

struct listed_drive {
    void* slot;
    bool to_read;  // by the crew
    bool ready;    // to be taken
};

// The walk of a crew. The threads identify and read; all that comes in the order of the drives, and all that
// goes to a library, is this thread's. The lock is held for everything here but the constant first members.
struct crew_walk {
    const drive_operation& operation;
    void* program;
    const _storage_lib* lib;
    uint32_t selected;

    std::mutex lock = {};
    std::condition_variable work_came = {};
    std::condition_variable work_done = {};
    bool over = false;
    uint32_t in_work = 0;

    // A disk behind a storelib controller may have a node, too. What is sent to it keeps its order when nodes
    // of disks wait until `storelib_left` drives, which stand before them, are done with.
    uint32_t storelib_left = 0;
    uint32_t first_unbegun = 0;  // no drive before it is unbegun
    stage_t stages[max_drives] = {};
    int results[max_drives] = {};  // of the identifications

    listed_drive listed[max_drives] = {};
    uint32_t listed_count = 0;
    uint32_t read_count = 0;   // so many of the listed ones are read or being read
    uint32_t taken_count = 0;  // and so many have been taken

    uint32_t number = 0;  // of the drive that is waited for, among the selected ones
    uint32_t shown = 0;   // number that the progress shows
};

bool may_begin(const crew_walk* walk, uint32_t drive) {
    return walk->stages[drive] == STAGE_UNBEGUN &&
           (walk->storelib_left == 0 || !path_of(walk->lib->pd_list[drive].ctrl).waits_for_those);
}

// The listed drive that is to be read next, or null.
listed_drive* next_to_read(crew_walk* walk) {
    while (walk->read_count < walk->listed_count) {
        listed_drive* drive = &walk->listed[walk->read_count++];
        if (drive->to_read) {
            return drive;
        }
    }
    return nullptr;
}

// The number of the drive that is to be identified next, or that of all drives.
uint32_t next_to_identify(crew_walk* walk) {
    const uint32_t count = walk->lib->pd_count;
    while (walk->first_unbegun < count && walk->stages[walk->first_unbegun] != STAGE_UNBEGUN) {
        ++walk->first_unbegun;
    }
    uint32_t drive = walk->first_unbegun;
    while (drive < count && !may_begin(walk, drive)) {
        ++drive;
    }
    return drive;
}

// Asks a drive what `ask` asks it, without the lock.
template <class Ask>
void ask_unlocked(crew_walk* walk, std::unique_lock<std::mutex>* held, Ask ask) {
    ++walk->in_work;
    held->unlock();
    end_at_signal();
    ask();
    held->lock();
    --walk->in_work;
}

// What can be read comes first: lines wait for it. Returns false when there is nothing to do.
bool do_next(crew_walk* walk, std::unique_lock<std::mutex>* held) {
    listed_drive* to_read = next_to_read(walk);
    if (to_read != nullptr) {
        ask_unlocked(walk, held, [=] { walk->operation.read(to_read->slot); });
        to_read->ready = true;
        walk->work_done.notify_one();
        return true;
    }
    const uint32_t drive = next_to_identify(walk);
    if (drive == walk->lib->pd_count) {
        return false;
    }
    int result = 0;
    walk->stages[drive] = STAGE_BEGUN;
    ask_unlocked(walk, held, [&] { result = get_pd_information(&walk->lib->pd_list[drive]); });
    walk->results[drive] = result;
    walk->stages[drive] = STAGE_IDENTIFIED;
    walk->work_done.notify_one();
    return true;
}

// A thread of the crew.
void work(void* context) {
    auto* walk = static_cast<crew_walk*>(context);
    std::unique_lock held(walk->lock);
    while (!walk->over) {
        if (!do_next(walk, &held)) {
            walk->work_came.wait(held);
        }
    }
}

void show_progress(crew_walk* walk, const char* step) {
    if (walk->shown != walk->number) {
        progress_drive(walk->number, walk->selected);
        walk->shown = walk->number;
    }
    char text[64];
    std::snprintf(text, sizeof(text), "%s, %u in work", step, walk->in_work);
    progress_step(text);
}

// Takes what is ready, in order. Returns whether anything was.
bool take_ready(crew_walk* walk, std::unique_lock<std::mutex>* held) {
    bool any = false;
    while (walk->taken_count < walk->listed_count && walk->listed[walk->taken_count].ready) {
        void* slot = walk->listed[walk->taken_count++].slot;
        held->unlock();
        take(walk->operation, walk->program, slot);
        held->lock();
        walk->shown = 0;
        any = true;
    }
    return any;
}

template <class Condition>
void wait_until(crew_walk* walk, std::unique_lock<std::mutex>* held, const char* step, Condition condition) {
    constexpr std::chrono::seconds until_next_progress(1);
    while (!condition()) {
        if (!take_ready(walk, held)) {
            show_progress(walk, step);
            // By the clock of the day: a wait by another needs glibc 2.30.
            walk->work_done.wait_until(*held, std::chrono::system_clock::now() + until_next_progress);
        }
    }
}

// Identifies the drive, or waits until the crew has. Returns the result.
int await_identification(crew_walk* walk, std::unique_lock<std::mutex>* held, uint32_t drive) {
    _pd_info* pd = &walk->lib->pd_list[drive];
    constexpr char step[] = "identifying";
    if (path_of(pd->ctrl).has_node) {
        wait_until(walk, held, step, [&] { return walk->stages[drive] == STAGE_IDENTIFIED; });
        return walk->results[drive];
    }
    show_progress(walk, step);
    int result = 0;
    ask_unlocked(walk, held, [&] { result = get_pd_information(pd); });
    return result;
}

// Has a drive read, by the crew where it has a node.
void list_drive(crew_walk* walk, std::unique_lock<std::mutex>* held, const _pd_info* pd, void* slot) {
    const bool reads = walk->operation.read != nullptr;
    const bool to_read = reads && path_of(pd->ctrl).has_node;
    if (reads && !to_read) {
        show_progress(walk, walk->operation.reading);
        ask_unlocked(walk, held, [=] { walk->operation.read(slot); });
    }
    walk->listed[walk->listed_count++] = {slot, to_read, !to_read};
    if (to_read) {
        walk->work_came.notify_one();
    }
}

void lead(crew_walk* walk, left_out_list* left_out) {
    std::unique_lock held(walk->lock);
    for (uint32_t i = 0; i < walk->lib->pd_count; ++i) {
        _pd_info* pd = &walk->lib->pd_list[i];
        if (is_selected(walk->operation, walk->program, pd)) {
            ++walk->number;
            const int result = await_identification(walk, &held, i);
            void* slot = admit(walk->operation, walk->program, pd, result, left_out);
            if (slot != nullptr) {
                list_drive(walk, &held, pd, slot);
            }
        } else {
            leave_out_unselected(left_out, pd);
        }
        if (path_of(pd->ctrl).may_have_nodes && --walk->storelib_left == 0) {
            walk->work_came.notify_all();
        }
        take_ready(walk, &held);
    }
    wait_until(walk, &held, walk->operation.reading, [&] { return walk->taken_count == walk->listed_count; });
    walk->over = true;
    walk->work_came.notify_all();
}

// Whether there was a crew for the walk, which then is over.
bool walk_with_crew(const drive_operation& operation, void* program, const _storage_lib* lib,
                    left_out_list* left_out, uint32_t selected) {
    crew_walk walk = {operation, program, lib, selected};
    uint32_t tasks = 0;
    for (uint32_t i = 0; i < lib->pd_count; ++i) {
        const _pd_info* pd = &lib->pd_list[i];
        const bool tasked = is_selected(operation, program, pd) && path_of(pd->ctrl).has_node;
        walk.stages[i] = tasked ? STAGE_UNBEGUN : STAGE_BEGUN;
        tasks += tasked ? 1 : 0;
        walk.storelib_left += path_of(pd->ctrl).may_have_nodes ? 1 : 0;
    }
    crew threads;
    if (start_crew(&threads, tasks, work, &walk) == 0) {
        return false;
    }
    lead(&walk, left_out);
    join_crew(&threads);
    return true;
}

}  // namespace

void leave_out(left_out_list* list, const _pd_info* pd, left_out_t reason) {
    list->drives[list->count] = {pd, reason, reason == LEFT_OUT_DUPLICATE ? duplicate_of() : nullptr};
    ++list->count;
}

uint32_t count_selected(const drive_operation& operation, const void* program, const _storage_lib* lib) {
    uint32_t count = 0;
    for (uint32_t i = 0; i < lib->pd_count; ++i) {
        count += is_selected(operation, program, &lib->pd_list[i]) ? 1 : 0;
    }
    return count;
}

void walk_drives(const drive_operation& operation, void* program, const _storage_lib* lib,
                 left_out_list* left_out) {
    const uint32_t selected = count_selected(operation, program, lib);
    if (get_jobs() > 1 && walk_with_crew(operation, program, lib, left_out, selected)) {
        progress_clear();
        return;
    }
    uint32_t in_work = 0;
    for (uint32_t i = 0; i < lib->pd_count && held_signal() == 0; ++i) {
        _pd_info* pd = &lib->pd_list[i];
        if (!is_selected(operation, program, pd)) {
            leave_out_unselected(left_out, pd);
            continue;
        }
        progress_drive(++in_work, selected);
        walk_drive(operation, program, pd, left_out);
    }
    progress_clear();
}

void open_inventory(_storage_lib* lib, bool exclusive) {
    lock_drives(exclusive);
    init_storage_lib(lib);
}

void close_inventory(_storage_lib* lib) {
    flush_output();
    un_init_storage_lib(lib);
    unlock_drives();
}

}  // namespace mirvok
