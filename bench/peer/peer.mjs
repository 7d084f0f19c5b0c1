// The job of the subscribing side as a script of its own: MQTT records in, data points out, with value, quality
// bits, invalid flag and source time, through the same server-side function as the gateway uses.
//
// usage: node peer.mjs BROKER_URL GROUP REDIS_SOCKET MAPPING.json RECORDS
// MAPPING.json: {publication: {tag: element}}. Prints one JSON line when RECORDS records are confirmed.
import { readFileSync } from 'node:fs';
import mqtt from 'mqtt';
import Redis from 'ioredis';
import sparkplug from 'sparkplug-payload';

const [brokerUrl, group, socketPath, mappingFile, wanted] = process.argv.slice(2);
const records = Number(wanted);
const mapping = JSON.parse(readFileSync(mappingFile, 'utf8'));
const codec = sparkplug.get('spBv1.0');
const prefix = `kel/${group}/data/`;
const redis = new Redis(socketPath, { enableAutoPipelining: true });
const writer = `peer.${process.pid}`;

let received = 0;
let confirmed = 0;
let sequence = 0;
let started = 0n;

function finish() {
  const seconds = Number(process.hrtime.bigint() - started) / 1e9;
  const cpu = process.cpuUsage();
  console.log(JSON.stringify({ records: confirmed, seconds, cpuSeconds: (cpu.user + cpu.system) / 1e6 }));
  process.exit(0);
}

function onRecord(topic, payload) {
  const tags = mapping[topic.slice(prefix.length)];
  if (!tags || payload.length === 0) return;
  if (received++ === 0) started = process.hrtime.bigint();
  const record = codec.decodePayload(payload);
  let quality = 1;
  let time = Number(record.timestamp ?? 0);
  const fields = new Map();
  for (const metric of record.metrics) {
    if (metric.name === '_quality') quality = metric.value;
    else if (metric.name === '_time') time = Math.trunc(Number(metric.value) / 1e6);
    else if (!metric.name.startsWith('_')) fields.set(metric.name, metric.value);
  }
  const bits = quality === 1 ? '1121' : quality === 2 ? '1120' : '1020';
  const flag = quality === 1 ? 'i0' : 'i1';
  const args = [writer, '', String(++sequence), '0', String(time), ''];
  for (const [tag, element] of Object.entries(tags)) {
    const value = fields.get(tag);
    if (value !== undefined) args.push(element, `${flag}${bits}v${value}`);
  }
  redis.call('FCALL', 'dp_set', '0', ...args).then(() => {
    if (++confirmed === records) finish();
  });
}

const client = mqtt.connect(brokerUrl, { protocolVersion: 5, properties: { receiveMaximum: 1000 } });
client.on('message', onRecord);
client.on('connect', () => client.subscribe(prefix + '#', { qos: 1 }, () => console.log('{"ready": true}')));
