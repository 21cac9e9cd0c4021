// Reads an MCAP recording with the format's own library: the indexed reader
// (magic, footer, summary CRC, chunk indexes, statistics), then the stream
// reader over the whole file (every chunk's CRC and the data section's).
// Decodes every message with protobufjs from the schema in the file and
// prints one JSON line: the library, the chunks, and the messages per topic.
import { McapIndexedReader, McapStreamReader } from "@mcap/core";
import { loadDecompressHandlers, protobufFromBinaryDescriptor } from "@mcap/support";
import { open, readFile } from "node:fs/promises";

const file = process.argv[2];
const handle = await open(file);
const size = (await handle.stat()).size;
const readable = {
  size: async () => BigInt(size),
  read: async (offset, length) => {
    const buffer = new Uint8Array(Number(length));
    await handle.read(buffer, 0, buffer.length, Number(offset));
    return buffer;
  },
};
const decompressHandlers = await loadDecompressHandlers();
const reader = await McapIndexedReader.Initialize({ readable, decompressHandlers });

const types = new Map();
for (const [id, schema] of reader.schemasById) {
  if (schema.encoding !== "protobuf") throw new Error(`schema ${id} is ${schema.encoding}`);
  types.set(id, protobufFromBinaryDescriptor(schema.data).lookupType(schema.name));
}
const counts = {};
const times = {};
for await (const message of reader.readMessages({ validateCrcs: true })) {
  const channel = reader.channelsById.get(message.channelId);
  const scene = types.get(channel.schemaId).decode(message.data);
  if (BigInt(scene.time.toString()) !== message.publishTime) {
    throw new Error(`publish time ${message.publishTime} is not the scene's ${scene.time}`);
  }
  counts[channel.topic] = (counts[channel.topic] ?? 0) + 1;
  (times[channel.topic] ??= []).push(message.logTime);
}
for (const [id, count] of reader.statistics.channelMessageCounts) {
  const topic = reader.channelsById.get(id).topic;
  if (BigInt(counts[topic] ?? 0) !== count) throw new Error(`statistics count of ${topic}`);
}
if (reader.chunkIndexes.length !== reader.statistics.chunkCount) throw new Error("chunk count");

const stream = new McapStreamReader({ validateCrcs: true, decompressHandlers });
stream.append(await readFile(file));
let streamed = 0;
let record;
while ((record = stream.nextRecord())) {
  if (record.type === "Message") streamed++;
}
if (!stream.done()) throw new Error("the stream reader did not reach the end");
if (BigInt(streamed) !== reader.statistics.messageCount) throw new Error("streamed count");

const channels = [...reader.channelsById.values()].map((c) => ({
  topic: c.topic,
  encoding: c.messageEncoding,
  metadata: Object.fromEntries(c.metadata),
}));
console.log(
  JSON.stringify({
    profile: reader.header.profile,
    library: reader.header.library,
    chunks: reader.chunkIndexes.length,
    compression: [...new Set(reader.chunkIndexes.map((c) => c.compression))],
    channels,
    counts,
  }),
);
await handle.close();
