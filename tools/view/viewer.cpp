// One viewer of the view: what waits for it, how it closes, how it reads.
#include "viewer.h"

#include "wsframe.h"

namespace {

// How many bytes of answers and statuses may wait for a viewer.
constexpr size_t MAX_QUEUED_TEXT = 256 * 1024;

}  // namespace

void view_viewer_roll_tally(view_viewer_t& viewer, int64_t now) {
    if (now - viewer.window_at < VIEW_READING_WINDOW_NS) {
        return;
    }
    bool adjacent = now - viewer.window_at < 2 * VIEW_READING_WINDOW_NS;
    viewer.taken[1] = adjacent ? viewer.taken[0] : 0;
    viewer.replaced[1] = adjacent ? viewer.replaced[0] : 0;
    viewer.taken[0] = viewer.replaced[0] = 0;
    viewer.window_at = now;
}

// A viewer reads when it took at least as many of its messages as were
// replaced unsent, and took some or has its first on the way.
int view_viewer_standing(view_viewer_t& viewer, int64_t now) {
    if (viewer.session.empty()) {
        return 0;
    }
    view_viewer_roll_tally(viewer, now);
    unsigned taken = viewer.taken[0] + viewer.taken[1];
    bool sending = !viewer.data.empty() || (viewer.out_data && viewer.out_at < viewer.out.size());
    return viewer.replaced[0] + viewer.replaced[1] <= taken && (taken > 0 || sending) ? 2 : 1;
}

bool view_viewer_waiting(const view_viewer_t& viewer) {
    return viewer.out_at < viewer.out.size() || !viewer.text.empty() || viewer.closing ||
           !viewer.data.empty();
}

bool view_viewer_next(view_viewer_t& viewer) {
    viewer.out_at = 0;
    viewer.out_data = false;
    if (!viewer.text.empty()) {
        viewer.out = {std::move(viewer.text.front()), nullptr};
        viewer.text.pop_front();
        viewer.text_bytes -= viewer.out.head.size();
    } else if (viewer.closing && !viewer.close_queued) {
        viewer.out = {ws_close_frame(viewer.close_code, viewer.close_reason), nullptr};
        viewer.close_queued = true;
    } else if (!viewer.data.empty() && !viewer.closing) {
        view_message_t& next = viewer.data.begin()->second;
        viewer.out = {ws_frame_head(WS_BINARY, next.size()) + next.head, std::move(next.body)};
        viewer.data.erase(viewer.data.begin());
        viewer.out_data = true;
    } else {
        viewer.out = {};
        return false;
    }
    return true;
}

void view_viewer_sent(view_viewer_t& viewer, int64_t now) {
    if (viewer.out_data) {
        view_viewer_roll_tally(viewer, now);
        ++viewer.taken[0];
    }
}

void view_viewer_queue_frame(view_viewer_t& viewer, std::string frame) {
    if (viewer.closing) {
        return;
    }
    viewer.text_bytes += frame.size();
    viewer.text.push_back(std::move(frame));
    if (viewer.text_bytes > MAX_QUEUED_TEXT) {
        viewer.text.clear();
        viewer.text_bytes = 0;
        view_viewer_close_after(viewer, WS_POLICY_VIOLATION, "too many answers waiting to be read");
    }
}

void view_viewer_queue_text(view_viewer_t& viewer, const std::string& message) {
    view_viewer_queue_frame(viewer, ws_frame_head(WS_TEXT, message.size()) + message);
}

void view_viewer_queue_data(view_viewer_t& viewer, uint32_t subscription, view_message_t message) {
    auto [slot, fresh] = viewer.data.try_emplace(subscription);
    viewer.replaced[0] += !fresh;
    slot->second = std::move(message);
}

void view_viewer_close_after(view_viewer_t& viewer, uint16_t code, const std::string& reason) {
    if (viewer.closing) {
        return;
    }
    viewer.data.clear();
    viewer.closing = true;
    viewer.close_code = code;
    viewer.close_reason = reason;
}

void view_viewer_close_with(view_viewer_t& viewer, uint16_t code, const std::string& reason) {
    viewer.data.clear();
    view_viewer_queue_text(viewer, foxglove_status(FOXGLOVE_ERROR, reason));
    view_viewer_close_after(viewer, code, reason);
}
