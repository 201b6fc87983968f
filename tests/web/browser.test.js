/* The page in a browser, on sessions of real X servers. */
import assert from 'node:assert/strict';
import { mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import test, { after, before } from 'node:test';
import { launch } from './screenshot.js';
import { atEnd, eventually, observe, sleep, startServer, startWeb } from './support.js';

let browser;
before(async () => { browser = await launch(); });
after(() => browser.close());

async function open(t, kind, ...options) {
  const display = await startServer(t, kind);
  const observer = observe(t, display);
  const web = await startWeb(t, display, ...options);
  const context = await browser.newContext({ viewport: { width: 1280, height: 800 } });
  const page = await context.newPage();
  const errors = [];
  page.on('pageerror', error => errors.push(error.message));
  atEnd(t, async () => {
    await context.close();
    assert.deepEqual(errors, []);
  });
  await page.goto(web.url);
  await controls(page);
  return { display, observer, web, page };
}

const says = (page, id, expected) => eventually(() => page.textContent(`#${id}`), expected);
const controls = page => says(page, 'role', 'You control')
  .then(() => eventually(() => page.locator('canvas').count(), count => count > 0));

/* By which value a canvas differs most from what the X server shows at its place. */
function compare(page, observer, { x, y, width, height }, canvas = 0) {
  return async () => {
    const shown = Buffer.from(await page.evaluate(([nth, ...area]) => {
      const { data } = document.querySelectorAll('canvas')[nth].getContext('2d').getImageData(...area);
      return btoa(data.reduce((text, byte) => text + String.fromCharCode(byte), ''));
    }, [canvas, x, y, width, height]), 'base64');
    const real = await observer.image(x + 1280 * canvas, y, width, height);
    let most = 0;
    for (let i = 0; i < real.length; i += 4)
      for (let c = 0; c < 3; c++)
        most = Math.max(most, Math.abs(real[i + c] - shown[i + 2 - c]));
    return most;
  };
}

async function pageAt(page, x, y) {
  const box = await page.locator('canvas').first().boundingBox();
  const width = await page.locator('canvas').first().evaluate(canvas => canvas.width);
  return [box.x + (x + 0.5) * box.width / width, box.y + (y + 0.5) * box.width / width];
}

test('shows the pixels of the screen', async t => {
  const { observer, page } = await open(t, 'xorg');
  await eventually(() => page.locator('canvas').count(), 2);
  for (const head of [0, 1])
    for (let i = 0; i < 8; i++)
      await observer.ask(`fill ${1280 * head + 450 + 70 * i} ${100 + 30 * i} ${5 + 9 * i} ${50 - 3 * i} ${0x123456 * (i + 1) & 0xffffff}`);
  for (const head of [0, 1])
    await eventually(compare(page, observer, { x: 0, y: 0, width: 1280, height: 500 }, head), 0);
  await observer.ask('photo 1500 500 900 500');
  await eventually(compare(page, observer, { x: 220, y: 500, width: 900, height: 500 }, 1), most => most > 0 && most < 48);
  await observer.ask('write 1300 520 30');
  for (const exact of [{ x: 0, y: 0, width: 1280, height: 490 }, { x: 0, y: 500, width: 200, height: 400 }])
    await eventually(compare(page, observer, exact, 1), 0);
});

test('shows the pixels at edges where no block ends', async t => {
  const { observer, page } = await open(t, 'odd');
  for (let i = 0; i < 65; i++)
    await observer.ask(`fill ${20 * i} 0 20 1021 ${0x30201 * i}`);
  await page.reload(); // all colours in one picture
  await controls(page);
  await eventually(compare(page, observer, { x: 0, y: 0, width: 1283, height: 1021 }), 0);
  for (let i = 1; i < 6; i++) {
    await observer.ask(`fill ${1280 - 30 * i} 900 400 200 ${0xffffff - i}`);
    await observer.ask(`fill ${1280 - 20 * i} 1010 9 2 ${i}`);
    await eventually(compare(page, observer, { x: 1083, y: 890, width: 200, height: 131 }), 0);
  }
});

test('plays text, clicks, drags and wheels', async t => {
  const { observer, page } = await open(t, 'xvfb');
  const reads = expected => eventually(() => observer.ask('text'), expected);

  await page.keyboard.type('Us, "de" äß');
  await page.keyboard.insertText('é∑€😀');
  await reads('Us, "de" äßé∑€😀');
  await observer.ask('forget');
  for (const key of ['Control+Shift+ArrowLeft', 'Control+c', 'F5', 'Tab'])
    await page.keyboard.press(key);
  await reads('<Left>^c<F5><Tab>');
  await observer.ask('forget');

  await page.mouse.move(...await pageAt(page, 100, 100));
  for (const button of ['left', 'right', 'middle'])
    await page.mouse.click(...await pageAt(page, 100, 100), { button });
  await reads('(1)(3)(2)');
  await page.mouse.down();
  await page.mouse.move(...await pageAt(page, 300, 220), { steps: 5 });
  await sleep(1200); // what is still held says nothing but that
  await eventually(() => observer.ask('pointer'), '300 220 1');
  const silence = page.evaluate(() => { for (const end = performance.now() + 2000; performance.now() < end;); });
  await observer.idle();
  await silence;
  await page.mouse.move(1279, 799);
  await eventually(() => observer.ask('pointer'), pointer => pointer.endsWith(' 1'));
  await page.mouse.up();
  await eventually(() => observer.ask('pointer'), pointer => pointer.endsWith(' 0'));
  await observer.ask('forget');

  await page.mouse.move(...await pageAt(page, 100, 100));
  for (const [x, y] of [[0, 100], [0, -240], [120, 0], [0, 40], [0, 40], [0, 40]])
    await page.mouse.wheel(x, y);
  await reads('(5)(4)(4)(7)(5)');
  await observer.idle();
});

test("wears the session's cursor", async t => {
  const { observer, page } = await open(t, 'xvfb');
  const worn = () => page.locator('#screen').evaluate(element => element.style.cursor);
  const seen = [];
  for (const shape of [34, 152, 34, 0, 152]) { // crosshair, xterm, hidden
    await observer.ask(`cursor ${shape}`);
    await eventually(worn, cursor => cursor !== seen.at(-1));
    seen.push(await worn());
  }
  assert.deepEqual([seen[0], seen[1]], [seen[2], seen[4]]);
  assert.match(seen[0], /^url\("data:image\/png;base64,.+"\) \d+ \d+, default$/);
  await observer.ask('warp 500 400');
  await eventually(() => page.locator('#screen img').count(), 1);
  await page.reload();
  await eventually(() => page.locator('#screen img').count(), 1);
  await page.mouse.move(300, 300);
  await eventually(() => page.locator('#screen img').count(), 0);
});

test('reshapes the session, and is used by keyboard alone', async t => {
  const { page } = await open(t, 'xorg');
  const canvases = () => page.locator('canvas').evaluateAll(all => all.map(({ width, height }) => `${width}x${height}`).join());
  await eventually(canvases, '1280x1024,1280x1024');
  await page.keyboard.press('Control+Alt+Home');
  for (const [button, expected] of [['remove', /^1280x1024$/], ['fit', /^1280x7\d\d$/], ['add', /^(1280x7\d\d),\1$/]]) {
    while (await page.evaluate(() => document.activeElement.id) !== button)
      await page.keyboard.press('Tab');
    await page.keyboard.press('Enter');
    await eventually(canvases, seen => expected.test(seen));
    await page.locator('#keyboard').focus();
  }
  await page.click('#add');
  await says(page, 'notice', words => /^[^.]+\.$/.test(words));
  assert.equal(await page.getAttribute('#notice', 'role'), 'status');
});

test('leaves nothing down when the page goes, hides or loses the keyboard', async t => {
  const { observer, page } = await open(t, 'xvfb');
  for (const leave of [
    () => page.evaluate(() => dispatchEvent(new FocusEvent('blur'))),
    () => page.evaluate(() => {
      Object.defineProperty(document, 'hidden', { value: true });
      document.dispatchEvent(new Event('visibilitychange'));
    }),
    () => page.reload().then(() => controls(page)),
    () => page.goto('about:blank'),
  ]) {
    await page.focus('#typing');
    await page.keyboard.down('Shift');
    await page.keyboard.down('Control');
    await page.mouse.move(300, 300);
    await page.mouse.down();
    await eventually(() => observer.ask('pointer'), pointer => pointer.endsWith(' 1'));
    await eventually(() => observer.ask('keyboard'), keys => keys.includes('mods 5'));
    await leave();
    await observer.idle(1000);
    await page.mouse.up();
    await page.keyboard.up('Control');
    await page.keyboard.up('Shift');
  }
});

test('comes back by itself', async t => {
  const folder = mkdtempSync(join(tmpdir(), 'ryx-'));
  atEnd(t, () => rmSync(folder, { recursive: true }));
  writeFileSync(join(folder, 'token'), 'a-token-that-stays-0123456789abcdef\n', { mode: 0o600 });
  const token = ['--token-file', join(folder, 'token')];
  const { display, web, page } = await open(t, 'xvfb', ...token);
  const works = async on => {
    const observer = observe(t, on);
    await controls(page);
    await eventually(compare(page, observer, { x: 0, y: 0, width: 700, height: 600 }), 0);
    await page.keyboard.press('a');
    await eventually(() => observer.ask('text'), 'a');
  };
  await works(display);

  await display.stop();
  await says(page, 'notice', words => words.includes('session'));
  const again = await startServer(t, 'xvfb', display.name);
  await says(page, 'notice', '');
  await works(again);

  await web.stop('SIGKILL');
  await says(page, 'notice', words => words.includes('lost'));
  const port = new URL(web.url).port;
  const successor = await startWeb(t, again, '--port', port, ...token);
  await says(page, 'notice', '');
  await works(again);

  await successor.stop();
  await startWeb(t, again, '--port', port);
  await says(page, 'notice', words => words.includes('no longer valid'));
});
