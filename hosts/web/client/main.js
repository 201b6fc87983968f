import { Connection } from './connection.js';
import { Cursors } from './cursors.js';
import { Keyboard } from './keyboard.js';
import { watchPointer } from './pointer.js';
import { Screen } from './screen.js';

const MESSAGE_TIME = 8000;

const byId = id => document.getElementById(id);
const stage = byId('stage'), typing = byId('typing');
const keyboard = new Keyboard({ mac: /^(Mac|iP)/.test(navigator.platform) });
const screen = new Screen(stage, byId('screen'));
let isConnected = false, isUp = true, hasControl = false, isViewOnly = false;
let lostWords = '', passingWords = '', passingTimer = 0, drawn = [], latency = 0;

/* Connection */

const connection = new Connection(new URL('session', location.href.replace(/^http/, 'ws')), {
  opened() {
    isConnected = true;
    cursors.forget();
    showState();
  },
  async lost(reason) {
    const wasConnected = isConnected;
    isConnected = hasControl = false;
    if (wasConnected || !lostWords)
      lostWords = `${asSentence(reason || 'The connection is lost')} Trying again…`;
    releaseAll();
    showState();
    if (!wasConnected && await isRefused()) {
      lostWords = 'The address of this page is no longer valid: open the one that ryx-web prints now.';
      showState();
    }
  },
  async update(buffer) {
    send({ type: 'ack', serial: await screen.update(buffer) });
    drawn.push(performance.now());
  },
  message: message => messages[message.type]?.(message),
  isHolding: () => hasControl && (keyboard.isHolding || pointer.isHolding),
  latency(milliseconds) {
    latency = milliseconds;
    showPace();
  },
});
const send = message => connection.send(message);
const cursors = new Cursors(byId('screen'), send);

const messages = {
  role({ control, view_only: viewOnly }) {
    if (hasControl && !control)
      releaseAll();
    hasControl = control;
    isViewOnly = viewOnly;
    showState();
  },
  /* The network was silent for too long; what is still held is pressed anew when it is needed. */
  released() {
    keyboard.forget();
    pointer.forget();
  },
  session({ state }) {
    isUp = state === 'up';
    if (!isUp)
      releaseAll();
    showState();
  },
  async heads({ heads }) {
    await screen.setHeads(heads);
    showState();
  },
  cursor: message => cursors.use(message),
  'cursor-evicted': ({ id }) => cursors.evict(id),
  pointer: ({ x, y }) => x === undefined ? cursors.hide() : cursors.show(...screen.toPage(x, y)),
  message({ text }) {
    passingWords = asSentence(text);
    clearTimeout(passingTimer);
    passingTimer = setTimeout(() => messages.message({ text: '' }), MESSAGE_TIME);
    showState();
  },
};

function asSentence(words) {
  return words && !words.endsWith('.') ? `${words}.` : words;
}

/* What the server says to a page that it lets in no more. */
async function isRefused() {
  const response = await fetch(location.href, { cache: 'no-store' }).catch(() => null);
  return response?.status === 401 || response?.status === 403;
}

/* Bar */

function describeRole() {
  if (!isConnected)
    return 'Not connected';
  if (isViewOnly)
    return 'View only';
  return hasControl ? 'You control' : 'You watch; another viewer controls';
}

function showState() {
  const { heads } = screen, isHere = isConnected && isUp, canAct = isHere && hasControl;

  byId('notice').textContent = !isConnected ? lostWords
    : !isUp ? 'The session does not answer; waiting for it…' : passingWords;
  byId('role').textContent = describeRole();
  byId('heads').textContent = heads.map(head => `${head.width}×${head.height}`).join(' + ');
  stage.classList.toggle('lost', !isHere);
  stage.classList.toggle('watching', !hasControl);
  for (const id of ['keyboard', 'fit', 'add', 'remove'])
    byId(id).disabled = !canAct || !heads.length || (id === 'remove' && heads.length < 2);
}

function showPace() {
  const now = performance.now();
  drawn = drawn.filter(time => now - time < 1000);
  byId('pace').textContent = isConnected ? `${drawn.length} fps, ${latency.toFixed(latency < 10 ? 1 : 0)} ms` : '';
}

const fromLeft = () => [...screen.heads].sort((a, b) => a.x - b.x);

function requestLayout(sizes) {
  let x = 0;
  const heads = sizes.map(({ width, height }) => ({ x: (x += width) - width, y: 0, width, height }));
  send({ type: 'layout', heads });
}

const actions = {
  actual({ target }) {
    screen.isActual = stage.classList.toggle('actual');
    target.setAttribute('aria-pressed', screen.isActual);
    screen.arrange();
  },
  async fullscreen() {
    await stage.requestFullscreen();
    typing.focus();
    /* The shortcuts of browser and system too, where the browser lets go of them. */
    await navigator.keyboard?.lock?.();
  },
  keyboard: () => typing.focus(),
  /* The window's pixels, shared out among the heads. */
  fit() {
    const width = Math.floor(stage.clientWidth * devicePixelRatio / screen.heads.length);
    requestLayout(screen.heads.map(() => ({ width, height: Math.floor(stage.clientHeight * devicePixelRatio) })));
  },
  add: () => requestLayout([...fromLeft(), fromLeft().at(-1)]),
  remove: () => requestLayout(fromLeft().slice(0, -1)),
};
for (const [id, action] of Object.entries(actions))
  byId(id).addEventListener('click', action);
byId('fullscreen').hidden = !document.fullscreenEnabled;
setInterval(showPace, 1000);

/* Pointer and keyboard */

const pointer = watchPointer(byId('screen'), {
  send(message) {
    cursors.hide(); // the browser shows it where it is now
    send(message);
  },
  locate: event => screen.locate(event),
  isActive: () => hasControl && screen.heads.length > 0,
  press(event) {
    if (event.pointerType !== 'touch') // whose on-screen keyboard would cover the session
      typing.focus({ preventScroll: true });
  },
});

function releaseAll() {
  keyboard.release().forEach(send);
  pointer.forget();
}

function leaveKeyboard() {
  if (document.fullscreenElement)
    document.exitFullscreen();
  byId('keyboard').focus();
}

const TEXT_INPUTS = {
  insertText: ({ data }) => keyboard.text(data),
  insertFromPaste: ({ data }) => keyboard.text(data ?? ''),
  insertLineBreak: () => keyboard.stroke('Enter'),
  deleteContentBackward: () => keyboard.stroke('Backspace'),
};
const onTyping = {
  keydown: event => event.key === 'Home' && event.ctrlKey && event.altKey ? leaveKeyboard() ?? [] : keyboard.down(event),
  keyup: event => keyboard.up(event),
  beforeinput: event => event.isComposing ? null : TEXT_INPUTS[event.inputType]?.(event) ?? [],
  compositionend: event => keyboard.text(event.data),
};
for (const [type, translate] of Object.entries(onTyping))
  typing.addEventListener(type, event => {
    const list = hasControl ? translate(event) : null;
    if (list)
      event.preventDefault();
    list?.forEach(send);
  });

/* On-screen keyboards tell of Backspace only where there is something to delete. */
const refill = event => {
  if (event?.isComposing)
    return;
  typing.value = ' ';
  typing.setSelectionRange(1, 1);
};
typing.addEventListener('input', refill);
refill();

/* The first catches each element's, too. */
addEventListener('blur', releaseAll, true);
addEventListener('pagehide', releaseAll);
document.addEventListener('visibilitychange', () => document.hidden && releaseAll());

if (!matchMedia('(pointer: coarse)').matches)
  typing.focus();
