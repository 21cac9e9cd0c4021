#pragma once

// Export marker of the generated RadarScene protobuf classes.
#ifndef RADARSCENE_PROTO_EXPORT
#define RADARSCENE_PROTO_EXPORT __attribute__((visibility("default")))
#endif
