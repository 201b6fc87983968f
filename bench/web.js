/* A browser that watches a session: `web.js ryx URL` through ryx-web, `web.js vnc PORT` through a VNC server, a relay
 * and a page of its own. For each line on standard input it prints one of JSON: "count" gives the bytes and the updates
 * that the page has received, "latency N" the milliseconds from each of N keystrokes in the page to the moment when the
 * echo has been drawn on its canvas. */
import { readFileSync } from 'node:fs';
import { createServer } from 'node:http';
import { createRequire } from 'node:module';
import { connect } from 'node:net';
import { createInterface } from 'node:readline';

const tests = new URL(process.env.WEB_TESTS ?? '../tests/web/', import.meta.url);
const { launch } = await import(new URL('screenshot.js', tests));
const [kind, target] = process.argv.slice(2);

/* Serves the page and passes bytes between its WebSocket and the VNC server. */
async function relay(port) {
  const { WebSocketServer } = createRequire(tests)('ws');
  const page = readFileSync(new URL('vnc.html', import.meta.url));
  const server = createServer((request, response) => response.setHeader('content-type', 'text/html').end(page));
  new WebSocketServer({ server }).on('connection', socket => {
    const stream = connect(port, '127.0.0.1').setNoDelay();
    stream.on('data', data => socket.send(data));
    socket.on('message', data => stream.write(data));
  });
  await new Promise(resolve => { server.listen(0, '127.0.0.1', resolve); });
  return `http://127.0.0.1:${server.address().port}/`;
}

/* In the page, before its own scripts. */
function instrument(isOneUpdateAMessage) {
  window.bench = { bytes: 0, updates: 0, drawn() {} };
  addEventListener('updated', () => { bench.updates++; });
  window.WebSocket = class extends WebSocket {
    constructor(...parameters) {
      super(...parameters);
      this.addEventListener('message', ({ data }) => {
        bench.bytes += data.byteLength ?? data.length;
        bench.updates += isOneUpdateAMessage && typeof data !== 'string';
      });
    }
  };
  for (const name of ['drawImage', 'putImageData', 'fillRect']) {
    const draw = CanvasRenderingContext2D.prototype[name];
    CanvasRenderingContext2D.prototype[name] = function (...parameters) {
      draw.apply(this, parameters);
      bench.drawn(this);
    };
  }
  bench.stroke = () => new Promise(resolve => {
    let pressed = 0, before = null;
    const colour = context => String(context.getImageData(108, 108, 1, 1).data);
    before = colour(document.querySelector('canvas').getContext('2d'));
    addEventListener('keydown', () => { pressed = performance.now(); }, { capture: true, once: true });
    bench.drawn = context => {
      if (pressed && colour(context) !== before) {
        bench.drawn = () => {};
        resolve(performance.now() - pressed);
      }
    };
  });
}

const browser = await launch();
const page = await browser.newPage({ viewport: { width: 1400, height: 900 } });
page.on('pageerror', error => { throw error; });
await page.addInitScript(instrument, kind === 'ryx');
await page.goto(kind === 'ryx' ? target : await relay(Number(target)));
await page.waitForFunction(() => document.querySelector('canvas')?.width > 300 && bench.updates > 0);
if (kind === 'ryx')
  await page.focus('#typing');

async function measureLatencies(n) {
  const latencies = [];
  for (let i = 0; i < n; i++) {
    const latency = page.evaluate(() => bench.stroke());
    await page.waitForTimeout(50 + 50 * Math.random());
    await page.keyboard.press('a');
    latencies.push(await latency);
  }
  return latencies;
}

console.log('"ready"');
for await (const line of createInterface({ input: process.stdin })) {
  const [command, n] = line.split(' ');
  const answer = command === 'latency' ? await measureLatencies(n)
    : await page.evaluate(() => ({ bytes: bench.bytes, updates: bench.updates }));
  console.log(JSON.stringify(answer));
}
await browser.close();
