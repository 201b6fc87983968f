/* X servers, observers, ryx-web and a bare client of its protocol. What a test starts is gone when it ends. */
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { createInterface } from 'node:readline';
import WebSocket from 'ws';

const { RYX_WEB, OBSERVER, XORG_CONF } = process.env;
const SERVERS = {
  xvfb: ['Xvfb', '-screen', '0', '1280x1024x24'],
  odd: ['Xvfb', '-screen', '0', '1283x1021x24'],
  xorg: ['/usr/lib/xorg/Xorg', '-config', XORG_CONF, '-logfile', '/dev/null', '-novtswitch', '-sharevts'],
};
/* Sanitizers' words, and GLib's for what must not be. */
const FAULTS = /Sanitizer|runtime error|CRITICAL|ERROR \*\*/;

export const sleep = milliseconds => new Promise(resolve => { setTimeout(resolve, milliseconds); });

/* Looks again until `look` gives what is expected. */
export async function eventually(look, expected, timeout = 10000) {
  const deadline = performance.now() + timeout;
  for (;;) {
    const seen = await look();
    try {
      return typeof expected === 'function' ? assert.ok(expected(seen), `saw ${seen}`) : assert.deepEqual(seen, expected);
    } catch (error) {
      if (performance.now() > deadline)
        throw error;
    }
    await sleep(10);
  }
}

export async function stop(process, signal = 'SIGTERM') {
  if (process.exitCode !== null || process.signalCode !== null)
    return;
  process.kill(signal);
  await once(process, 'exit');
}

const endings = new WeakMap();

/* Like `after` of a test, but what began last ends first. */
export function atEnd(t, action) {
  if (!endings.has(t)) {
    endings.set(t, []);
    t.after(async () => {
      const errors = [];
      for (const end of endings.get(t).reverse())
        await Promise.resolve().then(end).catch(error => errors.push(error));
      assert.deepEqual(errors, []);
    });
  }
  endings.get(t).push(action);
}

export async function startServer(t, kind, display = '') {
  const server = spawn(SERVERS[kind][0], [...(display ? [display] : []), ...SERVERS[kind].slice(1), '-displayfd', '3',
    '-noreset', '-nolisten', 'tcp'], { stdio: ['ignore', 'ignore', 'ignore', 'pipe'] });
  atEnd(t, () => stop(server, 'SIGKILL'));
  const [number] = await once(server.stdio[3], 'data');
  return { name: `:${String(number).trim()}`, stop: () => stop(server) };
}

export async function runOn(display, ...command) {
  const [code] = await once(spawn(command[0], command.slice(1), { env: { ...process.env, DISPLAY: display.name } }), 'exit');
  assert.equal(code, 0, command.join(' '));
}

/* What an ordinary client sees of the session: `ask` tells the observer one line and gets one back. */
export function observe(t, display) {
  const observer = spawn(OBSERVER, [display.name], { stdio: ['pipe', 'pipe', 'inherit'] });
  const lines = createInterface({ input: observer.stdout })[Symbol.asyncIterator]();
  const folder = mkdtempSync(join(tmpdir(), 'ryx-'));
  atEnd(t, async () => {
    await stop(observer);
    rmSync(folder, { recursive: true });
  });
  const ask = async line => {
    observer.stdin.write(`${line}\n`);
    return (await lines.next()).value;
  };
  return {
    ask,
    async image(x, y, width, height) {
      await ask(`image ${x} ${y} ${width} ${height} ${folder}/image`);
      return readFileSync(`${folder}/image`);
    },
    /* Nothing is down, held or locked any more. */
    idle: timeout => eventually(() => ask('keyboard'), 'mods 0 locked 0 group 0 latched 0', timeout)
      .then(() => eventually(() => ask('pointer'), pointer => pointer.endsWith(' 0'), timeout)),
  };
}

export async function startWeb(t, display, ...options) {
  const process = spawn(RYX_WEB, ['--display', display.name, '--port', '0', ...options], { stdio: ['ignore', 'pipe', 'pipe'] });
  let words = '';
  process.stderr.on('data', data => { words += data; });
  const exited = once(process, 'exit');
  const web = {
    process,
    words: () => words,
    async stop(signal = 'SIGTERM') {
      await stop(process, signal);
      return (await exited)[0];
    },
  };
  atEnd(t, async () => {
    await web.stop();
    assert.doesNotMatch(words, FAULTS);
  });
  const output = createInterface({ input: process.stdout })[Symbol.asyncIterator]();
  web.url = (await Promise.race([output.next(), exited])).value;
  assert.ok(web.url, words);
  return web;
}

export async function getCookie(url) {
  const response = await fetch(url, { redirect: 'manual' });
  return response.headers.get('set-cookie')?.split(';')[0] ?? '';
}

/* A client that speaks the protocol and knows what it was told. It acknowledges updates unless told not to. */
export class Client {
  messages = [];
  updates = [];
  acknowledges = true;
  #end = null;

  static async connect(t, web, { path = '/session', cookie, origin, ...options } = {}) {
    const client = new Client();
    const url = new URL(path, web.url);
    client.socket = new WebSocket(url.href.replace(/^http/, 'ws'), {
      headers: { Cookie: cookie ?? await getCookie(web.url) }, origin: origin ?? url.origin, ...options,
    });
    client.socket.on('close', (code, reason) => { client.#end ??= { code, reason: String(reason) }; });
    client.socket.on('unexpected-response', (request, response) => { client.#end = { status: response.statusCode }; });
    client.socket.on('error', () => {});
    client.socket.on('message', (data, isBinary) => client.#receive(data, isBinary));
    atEnd(t, () => client.socket.terminate());
    await eventually(() => client.#end ?? client.socket.readyState === WebSocket.OPEN, Boolean);
    return client;
  }

  #receive(data, isBinary) {
    if (!isBinary)
      return this.messages.push(JSON.parse(data));
    const rects = [];
    for (let i = 0; i < data.readUInt16LE(12); i++)
      rects.push({ width: data.readUInt16LE(18 + 16 * i), height: data.readUInt16LE(20 + 16 * i), form: data[22 + 16 * i] });
    const update = { head: data.readUInt32LE(0), serial: data.readUInt32LE(4), rects, size: data.length,
      width: data.readUInt16LE(8), height: data.readUInt16LE(10) };
    this.updates.push(update);
    if (this.acknowledges)
      this.send({ type: 'ack', serial: update.serial });
  }

  send(message) {
    this.socket.send(typeof message === 'string' ? message : JSON.stringify(message));
  }

  key(key, down, location = 0) {
    this.send({ type: 'key', key, location, down });
  }

  /* How the server refused or closed it. */
  async end() {
    await eventually(() => this.#end, Boolean);
    return this.#end;
  }

  last(type) {
    return this.messages.findLast(message => message.type === type);
  }

  /* Every head's pixels have come. */
  async ready() {
    const area = id => this.updates.filter(update => update.head === id)
      .flatMap(update => update.rects).reduce((sum, rect) => sum + rect.width * rect.height, 0);
    await eventually(() => (this.last('heads')?.heads ?? [])
      .map(head => area(head.id) >= head.width * head.height), seen => seen.length && seen.every(Boolean));
  }

  async controls() {
    await eventually(() => this.last('role')?.control, true);
    await this.ready();
  }
}
