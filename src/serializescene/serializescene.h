#pragma once

#include <radarscene/RadarScene.h>
#include <radarscene/scene.pb.h>

// Conversions between the in-memory frame and the wire scene message.
// deserializeFrame wraps convert_scene_to_frame under one process-wide mutex
// with the message on one shared arena; serializeFrame writes the same bytes
// as serializing convert_frame_to_scene's message, without building it.
void convert_frame_to_scene(RadarScene::Scene& scene, const RadarScene::Frame& frame,
                            const RadarScene::SerializeFrameOptions& options);
void convert_scene_to_frame(RadarScene::Frame& frame, const RadarScene::Scene& scene);

// True when the class filter drops the object: unless `raw`, an object whose
// only classification is class n (0..31) with bit n of `filtered_classes` set.
bool frame_object_filtered(const RadarScene::FrameObject& object, uint32_t filtered_classes,
                           bool raw);
