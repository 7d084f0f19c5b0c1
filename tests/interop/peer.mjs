// What the tests stand on: a private broker, our own program as a child, mqtt.js as the other side.
import { spawn } from 'node:child_process';
import { mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { createServer, connect } from 'node:net';
import { tmpdir, userInfo } from 'node:os';
import { join } from 'node:path';
import { createInterface } from 'node:readline';
import { setTimeout as sleep } from 'node:timers/promises';
import mqtt from 'mqtt';

export const group = 'interop';

/** Resolves with the first truthy answer of `look`; fails after `limit` milliseconds. */
export async function until(what, look, limit = 20000) {
  const end = Date.now() + limit;
  for (;;) {
    const found = look();
    if (found) return found;
    if (Date.now() > end) throw new Error(`waited in vain for ${what}`);
    await sleep(10);
  }
}

function freePort() {
  return new Promise((resolve, reject) => {
    const server = createServer();
    server.on('error', reject);
    server.listen(0, '127.0.0.1', () => {
      const { port } = server.address();
      server.close(() => resolve(port));
    });
  });
}

function answers(port) {
  return new Promise((resolve) => {
    const socket = connect(port, '127.0.0.1', () => {
      socket.destroy();
      resolve(true);
    });
    socket.on('error', () => resolve(false));
  });
}

export class Broker {
  clients = [];

  async start() {
    this.folder = mkdtempSync(join(tmpdir(), 'kel-interop-'));
    this.port = await freePort();
    const configuration = join(this.folder, 'mosquitto.conf');
    writeFileSync(
      configuration,
      `listener ${this.port} 127.0.0.1\nuser ${userInfo().username}\nallow_anonymous true\n` +
        'set_tcp_nodelay true\nmax_inflight_messages 200\nmax_queued_messages 1000000\npersistence false\n',
    );
    this.process = spawn('/usr/sbin/mosquitto', ['-c', configuration], { stdio: 'ignore' });
    const end = Date.now() + 20000;
    while (!(await answers(this.port))) {
      if (Date.now() > end || this.process.exitCode !== null) throw new Error('mosquitto does not start');
      await sleep(10);
    }
    return this;
  }

  get url() {
    return `mqtt://127.0.0.1:${this.port}`;
  }

  /** mqtt.js, MQTT 5; `messages` collects what arrives. */
  async client() {
    const client = await mqtt.connectAsync(this.url, { protocolVersion: 5, clean: true });
    this.clients.push(client);
    client.seen = [];
    client.on('message', (topic, payload, packet) => client.seen.push({ topic, payload, packet }));
    return client;
  }

  async stop() {
    await Promise.all(this.clients.map((client) => client.endAsync(true)));
    this.process.kill('SIGKILL');
    await until('the end of mosquitto', () => this.process.exitCode !== null || this.process.signalCode !== null);
    rmSync(this.folder, { recursive: true, force: true });
  }
}

const children = new Set();

/** Ends what a failed test has left behind. */
export function killAll() {
  for (const child of children) child.kill('SIGKILL');
}

/** Our program: `lines` collects its standard output. */
export class Kel {
  constructor(broker, ...words) {
    this.lines = [];
    this.process = spawn(process.env.KEL_PEER, words, {
      env: { ...process.env, KEL_URL: `${broker.url}?group=${group}` },
      stdio: ['pipe', 'pipe', 'inherit'],
    });
    children.add(this.process);
    this.process.on('exit', () => children.delete(this.process));
    createInterface({ input: this.process.stdout }).on('line', (line) => this.lines.push(line));
  }

  async ready() {
    await until('interop_kel to be ready', () => this.lines.includes('ready'));
    return this;
  }

  events() {
    return this.lines.filter((line) => line.startsWith('{')).map((line) => JSON.parse(line));
  }

  say(line) {
    this.process.stdin.write(`${line}\n`);
  }

  kill() {
    this.process.kill('SIGKILL');
  }

  async end() {
    this.process.stdin.end();
    await until('the end of interop_kel', () => this.process.exitCode !== null || this.process.signalCode !== null);
    return this.process.exitCode;
  }
}
