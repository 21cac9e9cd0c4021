#pragma once

// One viewer of the view: its subscriptions, what waits to be sent to it
// as WebSocket frames (the newest message of each subscription, a bounded
// queue of answers), how it closes, and whether it takes what it asked for.

#include "foxglove.h"

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>

// A frame waiting for a viewer: its own head (the frame's head and a text
// message, or the header of a message-data frame) and the payload it shares
// with every other viewer of the channel.
struct view_message_t {
    std::string head;
    std::shared_ptr<const std::string> body;
    size_t size() const { return head.size() + (body ? body->size() : 0); }
};

struct view_viewer_t {
    FoxgloveSession session;
    view_message_t out;  // the frame going out, `out_at` bytes of it sent
    size_t out_at = 0;
    bool out_data = false;                    // `out` is a message of a subscription
    std::deque<std::string> text;             // whole frames, in order: answers, statuses
    size_t text_bytes = 0;                    // in `text`
    std::map<uint32_t, view_message_t> data;  // subscription -> its newest message
    std::string message;                      // a text message arriving in fragments
    uint8_t message_opcode = 0;               // of the message in fragments; 0 for none
    bool closing = false;                     // nothing more is read; closes once `text` is out
    bool close_queued = false;                // `out` is the close frame
    uint16_t close_code = 0;                  // 0: a close frame without a code
    std::string close_reason;
    int64_t stall_deadline = 0;  // something waits: when it is disconnected without progress
    uint64_t serial = 0;         // in the order of arrival
    int64_t connected_at = 0;
    std::string host;  // its address
    // Whether it takes what it subscribed to: messages taken whole and
    // messages replaced unsent, in the current window and the one before.
    int64_t window_at = 0;
    unsigned taken[2] = {0, 0};
    unsigned replaced[2] = {0, 0};
};

// A viewer that took at least as many of its messages as were replaced
// unsent within this and the window before reads what it asked for.
constexpr int64_t VIEW_READING_WINDOW_NS = 2'000'000'000;

// Starts a new window of the reading tally when the current one is over.
void view_viewer_roll_tally(view_viewer_t& viewer, int64_t now);
// How much a viewer's place is worth: 0 subscribes to nothing, 1 subscribes
// but does not take what it is sent (or is sent nothing), 2 reads.
int view_viewer_standing(view_viewer_t& viewer, int64_t now);
// Whether something waits to be sent.
bool view_viewer_waiting(const view_viewer_t& viewer);
// Takes the next frame to send into `out`, answers first, the close frame
// last; false when none waits.
bool view_viewer_next(view_viewer_t& viewer);
// Counts a frame of `out` sent whole.
void view_viewer_sent(view_viewer_t& viewer, int64_t now);
// Queues a whole frame, or a text message; a viewer whose answers pile up
// beyond the bound loses them and is closed with a reason.
void view_viewer_queue_frame(view_viewer_t& viewer, std::string frame);
void view_viewer_queue_text(view_viewer_t& viewer, const std::string& message);
// The newest message of a subscription, replacing one unsent.
void view_viewer_queue_data(view_viewer_t& viewer, uint32_t subscription, view_message_t message);
// Closes with `code` and `reason` once the answers are out; nothing more
// is read or queued.
void view_viewer_close_after(view_viewer_t& viewer, uint16_t code, const std::string& reason);
// Sends `reason` as an error status, the last answer, then closes with
// `code` and it.
void view_viewer_close_with(view_viewer_t& viewer, uint16_t code, const std::string& reason);
