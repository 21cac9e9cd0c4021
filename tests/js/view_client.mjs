// A viewer that nobody here wrote: the Foxglove WebSocket protocol's own
// client (@foxglove/ws-protocol over ws). It subscribes to the scenes and to
// the scene updates, decodes the scenes with protobufjs from the advertised
// schema, checks every scene update against the public foxglove.SceneUpdate
// schema, and prints one JSON line: the scenes it got (base64) and what it
// found wrong. Usage: node view_client.mjs <url> <scenes>
import protocol from "@foxglove/ws-protocol";
import schemas from "@foxglove/schemas/jsonschema.js";
import { protobufFromBinaryDescriptor } from "@mcap/support";
import WebSocket from "ws";

const { FoxgloveClient } = protocol;
const [url, wanted] = [process.argv[2], Number(process.argv[3])];
const client = new FoxgloveClient({ ws: new WebSocket(url, [FoxgloveClient.SUPPORTED_SUBPROTOCOL]) });
const problems = [];
const scenes = [];
let updates = 0;
let sceneType;
const subscriptions = new Map();

// The value has the schema's shape: known properties of the right types.
function check(value, schema, where) {
  if (schema.$ref) schema = schema.$defs ?? schema;
  const type = schema.type;
  if (type === "object") {
    if (typeof value !== "object" || value === null || Array.isArray(value)) {
      problems.push(`${where}: not an object`);
      return;
    }
    for (const [key, item] of Object.entries(value)) {
      if (!schema.properties?.[key]) problems.push(`${where}.${key}: not in the schema`);
      else check(item, schema.properties[key], `${where}.${key}`);
    }
    for (const key of Object.keys(schema.properties ?? {})) {
      if (!(key in value)) problems.push(`${where}.${key}: missing`);
    }
  } else if (type === "array") {
    if (!Array.isArray(value)) problems.push(`${where}: not an array`);
    else value.forEach((item, i) => schema.items && check(item, schema.items, `${where}[${i}]`));
  } else if (type === "integer" && !Number.isInteger(value)) {
    problems.push(`${where}: not an integer`);
  } else if (type === "number" && typeof value !== "number") {
    problems.push(`${where}: not a number`);
  } else if (type === "string" && typeof value !== "string") {
    problems.push(`${where}: not a string`);
  } else if (type === "boolean" && typeof value !== "boolean") {
    problems.push(`${where}: not a boolean`);
  }
  if (schema.enum && !schema.enum.includes(value)) problems.push(`${where}: ${value} not allowed`);
}

client.on("serverInfo", (info) => {
  if (info.name !== "radarscene-view") problems.push(`server ${info.name}`);
});
client.on("advertise", (channels) => {
  for (const channel of channels) {
    if (channel.schemaName === "RadarScene.Scene") {
      const schema = Uint8Array.from(Buffer.from(channel.schema, "base64"));
      sceneType = protobufFromBinaryDescriptor(schema).lookupType("RadarScene.Scene");
      subscriptions.set(client.subscribe(channel.id), "scene");
    } else if (channel.schemaName === "foxglove.SceneUpdate") {
      subscriptions.set(client.subscribe(channel.id), "update");
    }
  }
});
client.on("message", ({ subscriptionId, data }) => {
  const bytes = new Uint8Array(data.buffer, data.byteOffset, data.byteLength);
  if (subscriptions.get(subscriptionId) === "scene") {
    sceneType.decode(bytes);
    scenes.push(Buffer.from(bytes).toString("base64"));
  } else {
    check(JSON.parse(new TextDecoder().decode(bytes)), schemas.SceneUpdate, "SceneUpdate");
    updates++;
  }
  if (scenes.length >= wanted && updates >= wanted) {
    console.log(JSON.stringify({ scenes, updates, problems: [...new Set(problems)].slice(0, 20) }));
    client.close();
    process.exit(0);
  }
});
client.on("error", (error) => {
  console.error(`view_client: ${error.message ?? error}`);
  process.exit(1);
});
setTimeout(() => {
  console.error(`view_client: ${scenes.length} scenes, ${updates} updates in 20 s`);
  process.exit(1);
}, 20000);
