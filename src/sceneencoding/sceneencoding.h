#pragma once

#include "serializescene/scenewriter.h"

#include <radarscene/RadarScene.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

// A frame's scene written once with every part of every object, so that the
// scene of any subscriber's options is put together by copying parts: the
// hand-off from the producer to the sending thread holds this instead of a
// copy of the frame, which takes several times the memory of its scene.
//
// `bytes` is itself the scene of options that include exactly the parts
// written and every object: the common case of subscribers that all ask for
// the same, whose scene then needs no assembly.
struct scene_encoding_t {
    // Where an object's parts lie in `bytes`: part k spans
    // [bounds[k], bounds[k + 1]).
    struct object_t {
        std::array<uint32_t, OBJECT_PART_COUNT + 1> bounds;
        bool filtered;  // the class filter drops it unless raw
    };

    unsigned parts = 0;  // the object parts written, one bit per object_part_t
    // The scene's head, every object's tag, length and parts, its tail.
    std::string bytes;
    uint32_t head_end = 0;
    uint32_t tail_begin = 0;
    std::vector<object_t> objects;
    bool any_filtered = false;
    // An object's classification flag is set over an empty list: only raw
    // scenes can be had, as from serializeFrame, which aborts otherwise.
    bool any_unlabelled = false;
};

// Writes `frame` into `encoding`, reusing its storage, with `filtered_classes`
// as the class filter of the scenes assembled from it. Only the object parts
// in `parts` are written: those the subscribers' options include.
void scene_encoding_fill(scene_encoding_t& encoding, const RadarScene::Frame& frame,
                         uint32_t filtered_classes, unsigned parts);

// True when the scene under `options` can be assembled from `encoding`.
bool scene_encoding_serves(const scene_encoding_t& encoding,
                           const RadarScene::SerializeFrameOptions& options);

// True when `encoding.bytes` is the serialized scene under `options` (their
// filtered_classes are those of the fill).
bool scene_encoding_is_scene(const scene_encoding_t& encoding,
                             const RadarScene::SerializeFrameOptions& options);

// Replaces `out` with the serialized scene under `options`, which the
// encoding must serve (their filtered_classes are those of the fill): the
// same bytes as serializeFrame.
void scene_encoding_assemble(std::string& out, const scene_encoding_t& encoding,
                             const RadarScene::SerializeFrameOptions& options);

// Gives back storage that a much smaller frame left unused.
void scene_encoding_trim(scene_encoding_t& encoding);
