#include "channel/channel.h"

#include "common/log.h"
#include "common/rs_assert.h"

std::unique_ptr<channel_t> channel_create() {
    auto channel = std::make_unique<channel_t>();
    channel->scene_sender = std::make_unique<scene_sender_t>();
    channel_t* self = channel.get();
    scene_sender_set_error_callback(*channel->scene_sender,
                                    [self](int id) { self->session_error_callback(id); });
    return channel;
}

channel_t::~channel_t() {
    std::lock_guard lock(mutex);
    if (scene_pipeline) {
        scene_pipeline_stop(*scene_pipeline);
    }
    for (auto& pipeline : retiring) {
        scene_pipeline_stop(*pipeline);
    }
}

void channel_set_error_callback(channel_t& channel, std::function<void(int)> callback) {
    channel.session_error_callback = std::move(callback);
}

bool has_pipeline(const channel_t& channel) {
    return channel.scene_pipeline != nullptr;
}

void create_and_start_pipeline(channel_t& channel) {
    RS_ASSERT(!has_pipeline(channel) && "The channel already has a pipeline!");
    RS_ASSERT(channel.scene_sender);
    std::lock_guard lock(channel.mutex);
    channel.scene_pipeline = scene_pipeline_create(channel.scene_sender.get());
    scene_pipeline_start(*channel.scene_pipeline);
}

unique_fd channel_add_session(channel_t& channel, std::unique_ptr<session_t> session) {
    RS_ASSERT(session);
    channel_reap_pipelines(channel);
    if (!has_pipeline(channel)) {
        create_and_start_pipeline(channel);
    }
    unique_fd subscriber_fd;
    if (scene_sender_add_session(*channel.scene_sender, session, subscriber_fd) < 0) {
        log_error("Failed adding session");
        return unique_fd();
    }
    return subscriber_fd;
}

bool channel_remove_session(channel_t& channel, int id) {
    if (!scene_sender_remove_session(*channel.scene_sender, id)) {
        return false;
    }
    channel_reap_pipelines(channel);
    if (scene_sender_get_num_sessions(*channel.scene_sender) > 0) {
        return true;
    }
    std::unique_ptr<scene_pipeline_t> pipeline;
    {
        std::lock_guard lock(channel.mutex);
        pipeline = std::move(channel.scene_pipeline);
    }
    if (pipeline) {
        scene_pipeline_retire(*pipeline);
        channel.retiring.push_back(std::move(pipeline));
    }
    return true;
}

void channel_reap_pipelines(channel_t& channel) {
    std::erase_if(channel.retiring, [](std::unique_ptr<scene_pipeline_t>& pipeline) {
        if (!scene_pipeline_finished(*pipeline)) {
            return false;
        }
        scene_pipeline_stop(*pipeline);
        return true;
    });
}

void channel_push(channel_t& channel, const RadarScene::Frame& frame, unsigned long raw_mask) {
    std::lock_guard lock(channel.mutex);
    if (channel.scene_pipeline) {
        scene_pipeline_push(*channel.scene_pipeline, frame, raw_mask);
    }
}

void channel_try_push(channel_t& channel, const RadarScene::Frame& frame, unsigned long raw_mask) {
    std::unique_lock lock(channel.mutex, std::try_to_lock);
    if (lock && channel.scene_pipeline) {
        scene_pipeline_try_push(*channel.scene_pipeline, frame, raw_mask);
    }
}
