// Per-frame costs on the producer's and the worker's paths.

#include "scenesender/scenesender.h"
#include "scenesink/scenesink.h"
#include "serializescene/serializescene.h"

#include <benchmark/benchmark.h>
#include <unistd.h>

namespace {

RadarScene::Frame busy_frame(int objects) {
    RadarScene::Frame frame;
    frame.time = 123456789;
    for (int i = 0; i < objects; ++i) {
        RadarScene::FrameObject o;
        o.id = i;
        o.set_bounding_box({1, 2, 3, 4});
        o.set_polygon({{0, 0}, {1, 0}, {1, 1}, {0, 1}});
        o.set_velocity3d({1, 2, 3});
        o.set_position({10, 20, 1});
        o.set_confidence(0.9);
        o.set_classifications({{1, 0.8}, {2, 0.1}});
        o.set_covariance(std::vector<double>(9, 0.1));
        frame.objects.push_back(o);
    }
    return frame;
}

void BM_SerializeFrame(benchmark::State& state) {
    RadarScene::Frame frame = busy_frame(static_cast<int>(state.range(0)));
    RadarScene::SerializeFrameOptions options;
    options.bounding_box = options.polygon = options.velocity = true;
    std::string out;
    for (auto _ : state) {
        RadarScene::serializeFrame(out, frame, options);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * out.size()));
}
BENCHMARK(BM_SerializeFrame)->Arg(1)->Arg(32)->Arg(128);

void BM_DeserializeFrame(benchmark::State& state) {
    std::string bytes;
    RadarScene::serializeFrame(bytes, busy_frame(static_cast<int>(state.range(0))), {});
    for (auto _ : state) {
        benchmark::DoNotOptimize(RadarScene::deserializeFrame(bytes));
    }
}
BENCHMARK(BM_DeserializeFrame)->Arg(32);

// One frame sent to four subscribers whose reader keeps up.
void BM_SendToSubscribers(benchmark::State& state) {
    scene_sender_t sender;
    std::vector<unique_fd> peers;
    for (int i = 0; i < 4; ++i) {
        auto session = std::make_unique<session_t>();
        session_set_id(*session, i);
        session_set_state(*session, SESSION_STATE_ACTIVE);
        unique_fd peer;
        scene_sender_add_session(sender, session, peer);
        peers.push_back(std::move(peer));
    }
    RadarScene::Frame frame = busy_frame(32);
    std::vector<char> sink(1 << 20);
    for (auto _ : state) {
        scene_sender_send(sender, frame, 0);
        for (auto& peer : peers) {
            benchmark::DoNotOptimize(read(peer.get(), sink.data(), sink.size()));
        }
    }
}
BENCHMARK(BM_SendToSubscribers);

// What the producer pays per push: one frame copy into the pending slot.
void BM_ProducerPush(benchmark::State& state) {
    scene_sender_t sender;
    auto sink = scene_sink_create(&sender);
    scene_sink_start(*sink);
    RadarScene::Frame frame = busy_frame(32);
    for (auto _ : state) {
        scene_sink_push(*sink, frame, 0);
    }
    scene_sink_stop(*sink);
}
BENCHMARK(BM_ProducerPush);

}  // namespace
