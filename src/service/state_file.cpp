#include "service/state_file.h"

#include "appliance_util.h"
#include "config/daemon_settings.h"
#include "service/command_server.h"
#include "service/durable_file.h"
#include "service/state_file_text.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

std::vector<SavedItem> saved_items()
{
    std::vector<SavedItem> items;
    items.reserve(media_persistence.size());
    for (const auto& [name, item] : media_persistence)
        items.push_back(SavedItem{name, item.owner});
    return items;
}

/// Moves a bad file out of the way so that it is kept for the operator and
/// the next write does not replace it.  The reason is the first part of the
/// line that reports it.
void move_bad_file_aside(const std::string& reason)
{
    std::string aside;
    int error = move_file_aside(state_file.path, aside);
    if (error == 0) {
        fprintf(stderr, "State file %s %s, moved aside to %s\n", state_file.path.c_str(),
                reason.c_str(), aside.c_str());
        state_file.bad_file_in_place = false;
        return;
    }
    fprintf(stderr, "State file %s %s, cannot be moved aside (%s), not writing it\n",
            state_file.path.c_str(), reason.c_str(), strerror(error));
    state_file.bad_file_in_place = true;
}

/// A bad file that an earlier attempt could not move aside is tried again,
/// silently: its line was written when it was found.
bool bad_file_out_of_the_way()
{
    if (!state_file.bad_file_in_place)
        return true;
    std::string aside;
    if (move_file_aside(state_file.path, aside) != 0)
        return false;
    fprintf(stderr, "State file %s moved aside to %s\n", state_file.path.c_str(), aside.c_str());
    state_file.bad_file_in_place = false;
    return true;
}

void note_saved()
{
    if (state_file.unsaved_since_us != 0)
        fprintf(stderr, "State file %s saved again\n", state_file.path.c_str());
    state_file.unsaved_since_us = 0;
}

// A bad file that stays in place was reported when it was found; a failed
// write is reported once, until a write succeeds.
void note_unsaved(int error)
{
    if (error != 0)
        ++state_file.failed_writes;
    if (state_file.unsaved_since_us != 0)
        return;
    if (error != 0)
        fprintf(stderr, "State file %s not saved: %s\n", state_file.path.c_str(), strerror(error));
    state_file.unsaved_since_us = monotonic_clock_us();
}

}  // namespace

void load_state_file()
{
    state_file.path = daemon_settings.state_file;
    if (state_file.path.empty())
        return;
    std::string text;
    int error = read_whole_file(state_file.path, text);
    if (error == ENOENT)
        return;
    if (error != 0) {
        move_bad_file_aside(std::string("cannot be read (") + strerror(error) + ")");
        save_state_file();
        return;
    }
    StateFileContents contents = parse_state_file(text);
    for (const SavedItem& saved : contents.items)
        media_persistence.emplace(saved.name, MediaItemPersistence{false, saved.owner});
    if (contents.first_bad_line != 0) {
        move_bad_file_aside("line " + std::to_string(contents.first_bad_line) + " is malformed");
        save_state_file();
    }
}

bool save_state_file()
{
    if (state_file.path.empty())
        return true;
    int error = 0;
    if (bad_file_out_of_the_way())
        error = replace_file_durably(state_file.path, format_state_file(saved_items()));
    if (error == 0 && !state_file.bad_file_in_place) {
        note_saved();
        return true;
    }
    note_unsaved(error);
    return false;
}

void retry_state_file()
{
    if (state_file.unsaved_since_us != 0)
        save_state_file();
}

void follow_state_file_setting()
{
    if (daemon_settings.state_file == state_file.path)
        return;
    state_file = StateFileRecord();
    state_file.path = daemon_settings.state_file;
    save_state_file();
}
