// The wire format as others see it: mqtt.js carries, sparkplug-payload reads and writes. Neither knows Kel.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import Long from 'long';
import sparkplug from 'sparkplug-payload';
import proto from 'sparkplug-payload/lib/sparkplugPayloadProto.js';
import { Broker, Kel, group, killAll, until } from './peer.mjs';

const codec = sparkplug.get('spBv1.0');
const Payload = proto.org.eclipse.tahu.protobuf.Payload;
const dataTopic = (name) => `kel/${group}/data/${name}`;

let broker;
const checks = [];
const check = (name, body) => checks.push([name, body]);

/** The metrics by name, as sparkplug-payload reads them. */
function metrics(payload) {
  return new Map(codec.decodePayload(payload).metrics.map((metric) => [metric.name, metric]));
}

/** Arrays of the Sparkplug B standard: sparkplug-payload leaves their bytes to its users. */
const unpack = {
  22: (view) => each(view, 1, (at) => view.getUint8(at)),
  23: (view) => each(view, 2, (at) => view.getInt16(at, true)),
  24: (view) => each(view, 4, (at) => view.getInt32(at, true)),
  25: (view) => each(view, 8, (at) => view.getBigInt64(at, true)),
  30: (view) => each(view, 4, (at) => view.getFloat32(at, true)),
  31: (view) => each(view, 8, (at) => view.getFloat64(at, true)),
  32: (view) =>
    Array.from({ length: view.getUint32(0, true) }, (_, i) => ((view.getUint8(4 + (i >> 3)) >> (7 - (i & 7))) & 1) === 1),
  33: (view) => {
    const text = Buffer.from(view.buffer, view.byteOffset, view.byteLength).toString('utf8');
    return text === '' ? [] : text.slice(0, -1).split('\0');
  },
};
function each(view, size, read) {
  assert.equal(view.byteLength % size, 0);
  return Array.from({ length: view.byteLength / size }, (_, i) => read(i * size));
}
function arrays(payload) {
  const found = new Map();
  for (const metric of Payload.decode(payload).metrics) {
    if (!(metric.datatype in unpack)) continue;
    const bytes = metric.bytesValue;
    found.set(metric.name, {
      datatype: metric.datatype,
      value: unpack[metric.datatype](new DataView(bytes.buffer, bytes.byteOffset, bytes.byteLength)),
    });
  }
  return found;
}

check('what our publisher sends is a Sparkplug B payload with every type', async () => {
  const client = await broker.client();
  await client.subscribeAsync('kel/#', { qos: 1 });
  const publisher = await new Kel(broker, 'publish', 'plant/every').ready();
  const { payload } = await until('the record', () => client.seen.find((seen) => seen.topic === dataTopic('plant/every')));

  const got = metrics(payload);
  const scalar = (name) => [got.get(name).type, String(got.get(name).value)];
  assert.deepEqual(scalar('bool'), ['Boolean', 'true']);
  assert.equal(got.get('byte').type, 'Int8');
  assert.equal(got.get('byte').value & 0xff, 200);
  assert.deepEqual(scalar('short'), ['Int16', '-12345']);
  assert.deepEqual(scalar('int'), ['Int32', '-2147483648']);
  assert.deepEqual(scalar('long'), ['Int64', '-9007199254740993']);
  assert.deepEqual(scalar('float'), ['Float', '1.5']);
  assert.deepEqual(scalar('double'), ['Double', '-0.1']);
  assert.deepEqual(scalar('string'), ['String', 'grüße 🚀']);
  assert.deepEqual(scalar('empty string'), ['String', '']);
  assert.deepEqual(scalar('__underlined'), ['Int32', '42'], 'a leading underscore is doubled');
  assert.deepEqual(scalar('_value'), ['Double', '7.25'], 'the unnamed value');
  assert.equal(String(got.get('_time').value), '1772600767089012345');
  assert.equal(got.has('_quality') ? got.get('_quality').value : 1, 1);
  assert.match(got.get('_publisher').value, /^interop\/./);

  const lists = arrays(payload);
  assert.deepEqual(lists.get('bools'), { datatype: 32, value: [true, false, true, true, false, false, false, true, true, true] });
  assert.deepEqual(lists.get('bytes'), { datatype: 22, value: [0, 127, 255] });
  assert.deepEqual(lists.get('shorts'), { datatype: 23, value: [-32768, 0, 32767] });
  assert.deepEqual(lists.get('ints'), { datatype: 24, value: [-2147483648, 2147483647] });
  assert.deepEqual(lists.get('longs'), { datatype: 25, value: [-9223372036854775808n, 9223372036854775807n] });
  assert.deepEqual(lists.get('floats'), { datatype: 30, value: [0.25, Math.fround(-1e30)] });
  assert.deepEqual(lists.get('doubles'), { datatype: 31, value: [0.1, Infinity] });
  assert.deepEqual(lists.get('strings'), { datatype: 33, value: ['one', '', 'drei ä'] });
  assert.deepEqual(lists.get('no ints'), { datatype: 24, value: [] });

  // A newcomer gets the record because the broker has kept it.
  const late = await broker.client();
  await late.subscribeAsync(dataTopic('plant/every'), { qos: 1 });
  const kept = await until('the kept record', () => late.seen[0]);
  assert.equal(kept.packet.retain, true);
  assert.deepEqual(kept.payload, payload);

  publisher.say('bad pump broken');
  const bad = metrics((await until('the bad record', () => late.seen[1])).payload);
  assert.equal(bad.get('_quality').value, 0);
  assert.equal(bad.get('_reason').value, 'pump broken');
  assert.equal(String(bad.get('long').value), '-9007199254740993', 'the last values, repeated');
  assert.ok(Number(bad.get('_time').value) > 1772600767089012345);

  assert.equal(await publisher.end(), 0);
  const closed = await until('the end of the publication', () => late.seen[2]);
  assert.equal(closed.payload.length, 0, 'closed: an empty retained message');
});

check('a killed publisher is gone for everybody at once: its will clears its presence', async () => {
  const client = await broker.client();
  const presence = `kel/${group}/publisher/interop/`;
  await client.subscribeAsync(`kel/${group}/publisher/#`, { qos: 1 });
  const publisher = await new Kel(broker, 'publish', 'plant/killed').ready();
  const alive = await until('its presence', () =>
    client.seen.find((seen) => seen.topic.startsWith(presence) && seen.payload.length > 0));
  assert.ok(alive.packet.properties.messageExpiryInterval > 0, 'it does not stay for ever');
  publisher.kill();
  await until('its will', () => client.seen.find((seen) => seen.topic === alive.topic && seen.payload.length === 0));
  await publisher.end();
});

check('what mqtt.js and sparkplug-payload publish reaches our subscriber with every type', async () => {
  const subscriber = await new Kel(broker, 'subscribe', 'foreign/every').ready();
  const client = await broker.client();
  const scalars = codec.encodePayload({
    timestamp: Long.fromString('1772600767089', true),
    metrics: [
      { name: 'bool', type: 'Boolean', value: true },
      { name: 'byte', type: 'Int8', value: 200 },
      { name: 'short', type: 'Int16', value: -12345 },
      { name: 'int', type: 'Int32', value: -2147483648 },
      { name: 'long', type: 'Int64', value: Long.fromString('-9007199254740993') },
      { name: 'float', type: 'Float', value: 1.5 },
      { name: 'double', type: 'Double', value: -0.1 },
      { name: 'string', type: 'String', value: 'grüße 🚀' },
      { name: '_value', type: 'Double', value: 7.25 },
      { name: '__underlined', type: 'Int32', value: 42 },
    ],
  });
  await client.publishAsync(dataTopic('foreign/every'), Buffer.from(scalars), { qos: 1, retain: true });
  const records = () => subscriber.events().filter((event) => event.event === 'record');
  const first = await until('the scalars', () => records()[0]);
  assert.equal(subscriber.events()[0].event, 'connected', 'before the record that it announces');
  assert.equal(first.quality, 1, 'good unless it says otherwise');
  assert.equal(first.time, '1772600767089000000', 'the time of the payload');
  assert.deepEqual(first.fields, {
    bool: { type: 1, value: true },
    byte: { type: 2, value: 200 },
    short: { type: 3, value: -12345 },
    int: { type: 4, value: -2147483648 },
    long: { type: 5, value: '-9007199254740993' },
    float: { type: 6, value: 1.5 },
    double: { type: 7, value: -0.1 },
    string: { type: 8, value: 'grüße 🚀' },
    '': { type: 7, value: 7.25 },
    _underlined: { type: 4, value: 42 },
  });

  const little = (Type, values) => Buffer.from(Type.from(values).buffer);
  const metric = (name, datatype, bytesValue) => ({ name, datatype, bytesValue });
  const lists = Payload.encode({
    timestamp: Long.fromNumber(1),
    metrics: [
      { name: '_quality', datatype: 3, intValue: 0 },
      { name: '_time', datatype: 4, longValue: Long.fromString('1772600767089012345') },
      { name: '_reason', datatype: 12, stringValue: 'sensor fault' },
      metric('bools', 32, Buffer.from([10, 0, 0, 0, 0b10110001, 0b11000000])),
      metric('bytes', 22, Buffer.from([0, 127, 255])),
      metric('shorts', 23, little(Int16Array, [-32768, 0, 32767])),
      metric('ints', 24, little(Int32Array, [-2147483648, 2147483647])),
      metric('longs', 25, little(BigInt64Array, [-9223372036854775808n, 9223372036854775807n])),
      metric('floats', 30, little(Float32Array, [0.25, -2.5])),
      metric('doubles', 31, little(Float64Array, [0.1, 1e300])),
      metric('strings', 33, Buffer.from('one\0\0drei ä\0')),
      metric('no ints', 24, Buffer.alloc(0)),
    ],
  }).finish();
  await client.publishAsync(dataTopic('foreign/every'), Buffer.from(lists), { qos: 1, retain: true });
  const second = await until('the arrays', () => records()[1]);
  assert.equal(second.quality, 0);
  assert.equal(second.reason, 'sensor fault');
  assert.equal(second.time, '1772600767089012345');
  assert.deepEqual(second.fields, {
    bools: { type: 10, value: [true, false, true, true, false, false, false, true, true, true] },
    bytes: { type: 20, value: [0, 127, 255] },
    shorts: { type: 30, value: [-32768, 0, 32767] },
    ints: { type: 40, value: [-2147483648, 2147483647] },
    longs: { type: 50, value: ['-9223372036854775808', '9223372036854775807'] },
    floats: { type: 60, value: [0.25, -2.5] },
    doubles: { type: 70, value: [0.1, 1e300] },
    strings: { type: 80, value: ['one', '', 'drei ä'] },
    'no ints': { type: 40, value: [] },
  });

  // Something that is no payload is not delivered, and does not end anything.
  await client.publishAsync(dataTopic('foreign/every'), Buffer.from('no payload at all'), { qos: 1 });
  await client.publishAsync(dataTopic('foreign/every'), Buffer.from(scalars), { qos: 1, retain: true });
  const third = await until('the record behind it', () => records()[2]);
  assert.deepEqual(third.fields, first.fields);

  await client.publishAsync(dataTopic('foreign/every'), '', { qos: 1, retain: true });
  await until('the end of the publication', () => subscriber.events().at(-1).event === 'disconnected');
  assert.equal(await subscriber.end(), 0);
});

test('Kel over MQTT 5 and Sparkplug B, with others', async (context) => {
  broker = await new Broker().start();
  try {
    for (const [name, body] of checks) {
      await context.test(name, async () => {
        try {
          await body();
        } finally {
          killAll();
        }
      });
    }
  } finally {
    await broker.stop();
  }
});
