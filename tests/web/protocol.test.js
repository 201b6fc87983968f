/* ryx-web without a browser: who is let in, what a client may do, and what becomes of the session when one fails. */
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { readFileSync } from 'node:fs';
import test from 'node:test';
import { Client, eventually, getCookie, observe, sleep, startServer, startWeb } from './support.js';

const { RYX_WEB } = process.env;

async function start(t, kind, ...options) {
  const display = await startServer(t, kind);
  const observer = observe(t, display);
  const web = await startWeb(t, display, ...options);
  return { display, observer, web, connect: settings => Client.connect(t, web, settings) };
}

function childOf({ pid }) {
  return Number(readFileSync(`/proc/${pid}/task/${pid}/children`, 'utf8').split(' ')[0]);
}

test('lets nobody in without the token or from a foreign page', async t => {
  const { web, connect } = await start(t, 'xvfb');
  const guess = web.url.replace(/.$/, last => last === '0' ? '1' : '0');
  const refused = [
    { cookie: '' }, { cookie: `${(await getCookie(web.url)).slice(0, -1)}x` },
    { origin: 'http://example.com' }, { origin: 'null' }, { origin: `${new URL(web.url).origin}.example.com` },
  ];

  assert.equal((await fetch(guess)).status, 403);
  assert.equal((await fetch(new URL('/main.js', web.url))).status, 403);
  for (const settings of refused)
    assert.equal((await (await connect(settings)).end()).status, 403, JSON.stringify(settings));
  const { headers } = await fetch(web.url, { redirect: 'manual' });
  assert.match(headers.get('set-cookie'), /HttpOnly/i);
  assert.match(headers.get('set-cookie'), /SameSite=Strict/i);
  await (await connect()).controls();
});

test('says in one line why it does not start', async t => {
  const display = await startServer(t, 'xvfb');
  for (const [options, status] of [
    [['--display', ':987'], 3],
    [['--display', display.name, '--listen', '0.0.0.0'], 2],
    [['--display', display.name, '--port', '70000'], 2],
    [['--display', display.name, '--token-file', '/nonexistent/token'], 1],
  ]) {
    const { status: seen, stderr, stdout } = spawnSync(RYX_WEB, options, { encoding: 'utf8', timeout: 10000 });
    assert.deepEqual([seen, stdout, /^ryx-web: .+\n/.test(stderr)], [status, '', true], `${options}: ${stderr}`);
  }
});

test('bounds what a client sends', async t => {
  const { web, observer, connect } = await start(t, 'xvfb');
  for (const [message, code] of [
    ['{', 1008], ['[]', 1008], ['{"type":7}', 1008], [Buffer.from([1, 2, 3]), 1003], ['\0', 1008],
  ]) {
    const client = await connect();
    for (let i = 0; i < 30; i++)
      client.socket.send(message);
    assert.equal((await client.end()).code, code, String(message).slice(0, 20));
  }

  for (const size of [5000, 1 << 20]) {
    const client = await connect();
    client.socket.send('x'.repeat(size));
    assert.match(String((await client.end()).code), /1009|1006/); // what is on its way resets the connection
  }

  for (const send of [
    socket => socket.send('x'.repeat(4000), { fin: false }), // the message never ends
    socket => socket.ping('x'.repeat(100)),
  ]) {
    const client = await connect();
    for (let i = 0; i < 5000; i++)
      send(client.socket);
    await client.end();
  }

  let seed = 4711;
  const random = n => (seed = (seed * 1103515245 + 12345) % 0x80000000) % n;
  const pick = list => list[random(list.length)];
  const value = () => pick([0, 1, -1, 78, 1e9, 2 ** 31, -(2 ** 40), 0.5, 1e308, true, null, '', 'a', 'é', 'Shift', 'Control',
    'x'.repeat(300), [], {}, [{ x: 0, y: 0, width: random(1e6), height: -1 }], '\ud800']);
  const members = ['key', 'location', 'down', 'x', 'y', 'button', 'heads', 'id', 'serial', 'time'];
  const types = ['ack', 'key', 'release', 'motion', 'button', 'wheel', 'layout', 'require-cursor', 'ping', 'nonsense'];
  let client = await connect();
  for (let i = 0; i < 10000; i++) {
    if (client.socket.readyState > 1)
      client = await connect();
    const message = { type: pick(types) };
    for (let n = random(6); n > 0; n--)
      message[pick(members)] = value();
    const text = JSON.stringify(message);
    client.socket.send(random(100) ? text : random(2) ? text.slice(0, random(text.length)) : Buffer.from(text));
    if (i % 50 === 0)
      await eventually(() => client.socket.bufferedAmount === 0 || client.socket.readyState > 1, true);
  }
  client.socket.close();
  await (await connect()).controls();
  await observer.idle();
  assert.equal(web.process.exitCode, null);
});

test('shows a whole first frame at each of fifty connects', async t => {
  const { connect } = await start(t, 'xorg');
  for (let i = 0; i < 50; i++) {
    const client = await connect();
    await client.controls();
    if (i % 2)
      client.socket.terminate();
    else
      client.socket.close();
  }
});

test('sends a slow client no more than two updates, and others all', async t => {
  const { observer, connect } = await start(t, 'xvfb');
  const fast = await connect();
  const slow = await connect();
  await Promise.all([fast.ready(), slow.ready()]);
  await eventually(() => slow.last('role')?.control, false);
  slow.acknowledges = false;
  slow.updates = [];
  for (let i = 0; i < 20; i++) {
    const before = fast.updates.length;
    await observer.ask(`fill 600 ${40 * i} 60 30 ${1 + 999 * i}`);
    await eventually(() => fast.updates.length, seen => seen > before);
  }
  assert.ok(slow.updates.length <= 2, `${slow.updates.length} unacknowledged`);
  slow.acknowledges = true;
  slow.updates.forEach(({ serial }) => slow.send({ type: 'ack', serial }));
  const count = slow.updates.length;
  await eventually(() => slow.updates.length, seen => seen > count);
});

test('lets one client control and the others watch', async t => {
  const { observer, connect } = await start(t, 'xvfb', '--max-clients', '2');
  const first = await connect();
  await first.controls();
  const second = await connect();
  await second.ready();
  second.key('x', true);
  first.key('a', true);
  first.key('a', false);
  await eventually(() => observer.ask('text'), 'a');
  for (const path of ['/session', '/session/below']) {
    const third = await (await connect({ path })).end();
    assert.ok(third.status === 503 || third.code === 1013, JSON.stringify(third));
  }

  first.socket.close();
  await second.controls();
  second.key('b', true);
  await eventually(() => observer.ask('text'), 'ab');

  const { observer: watched, connect: watch } = await start(t, 'xvfb', '--view-only');
  const viewer = await watch();
  await viewer.ready();
  assert.deepEqual([viewer.last('role').control, viewer.last('role').view_only], [false, true]);
  viewer.key('a', true);
  viewer.send({ type: 'ping', time: 1 });
  await eventually(() => viewer.last('pong')?.time, 1);
  assert.equal(await watched.ask('text'), '');
});

for (const [name, end] of [
  ['a release', ({ client }) => client.send({ type: 'release' })],
  ['a closed page', ({ client }) => client.socket.close()],
  ['a cut connection', ({ client }) => client.socket.terminate()],
  ['the last word of a silent network', ({ client }) => { client.acknowledges = false; }],
  ['a killed server', ({ web }) => web.stop('SIGKILL')],
  ['a killed session', ({ web }) => process.kill(childOf(web.process), 'SIGKILL')],
  ['the end of the program', ({ web }) => web.stop().then(code => assert.equal(code, 0))],
])
  test(`leaves nothing down a second after ${name}`, async t => {
    const { web, observer, connect } = await start(t, 'xvfb');
    const client = await connect();
    await client.controls();
    client.key('Shift', true, 1);
    client.key('Control', true, 2);
    client.key('ArrowLeft', true);
    client.send({ type: 'button', button: 1, down: true });
    await eventually(() => observer.ask('pointer'), pointer => pointer.endsWith(' 1'));
    await eventually(() => observer.ask('keyboard'), keys => keys.includes('mods 5'));
    await end({ web, client });
    await observer.idle(1000);
  });

test('keeps down what a client holds that can be heard', async t => {
  const { web, observer, connect } = await start(t, 'xvfb');
  const client = await connect();
  await client.controls();
  web.process.kill('SIGSTOP'); // what has come meanwhile counts
  client.key('Control', true, 1);
  for (let i = 0; i < 20; i++) {
    if (i === 11)
      web.process.kill('SIGCONT');
    await sleep(100);
    client.send({ type: 'ping', time: i });
  }
  assert.match(await observer.ask('keyboard'), / mods 4 /);
  await eventually(() => client.last('released'), Boolean);
  await observer.idle(1000);
});

test('answers while the X server is grabbed', async t => {
  const { observer, connect } = await start(t, 'xvfb');
  const client = await connect();
  await client.controls();
  await observer.ask('grab');
  client.key('a', true);
  client.send({ type: 'ping', time: 2 });
  await eventually(() => client.last('pong')?.time, 2, 1000);
  const other = await connect();
  await eventually(() => other.last('role')?.control, false, 1000);
  await observer.ask('ungrab');
  await other.ready();
  await eventually(() => observer.ask('text'), 'a');
});

test('gives the layout back', async t => {
  const { display, web, connect } = await start(t, 'xorg');
  const sizes = client => client.last('heads')?.heads.map(({ x, width, height }) => [x, width, height]);
  const found = [[0, 1280, 1024], [1280, 1280, 1024]], asked = [[0, 800, 600]];
  const size = () => /current (.+?),/.exec(spawnSync('xrandr', ['--display', display.name], { encoding: 'utf8' }).stdout)[1];
  const killSession = () => process.kill(childOf(web.process), 'SIGKILL');
  for (const end of [client => client.socket.close(), client => { killSession(); client.socket.close(); }, () => web.stop()]) {
    const client = await connect();
    await client.controls();
    await eventually(() => sizes(client), found);
    client.send({ type: 'layout', heads: [{ x: 0, y: 0, width: 800, height: 600 }] });
    await eventually(() => sizes(client), asked);
    await end(client);
    await eventually(size, '2560 x 1024');
  }
});
