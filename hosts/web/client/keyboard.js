/* Turns what a browser tells of the keyboard into the session's key messages. It knows neither page nor connection, so
 * that recorded events can be played to it.
 *
 * Characters are sent as characters: the session finds its own key for them. A modifier that only helped the client's
 * keyboard to make one (AltGraph; Control and Alt in its place on Windows; Option on macOS) is released in the session
 * before the character goes there, and pressed again for the next key that is meant with it. */

/* The client's keyboard has applied these already. */
const LOCAL = new Set(['AltGraph', 'CapsLock', 'NumLock', 'ScrollLock', 'Fn', 'FnLock']);
/* Keys that an input method works on; what comes of them arrives as text. */
const COMPOSED = new Set(['Dead', 'Process', 'Unidentified']);
const MODIFIERS = new Set(['Shift', 'Control', 'Alt', 'Meta']);
/* On many keyboard maps they are behind AltGr, where a held Shift would be in the way. */
const BEHIND_ALTGR = new Set('@\\|~#[]{}€');

const isCharacter = key => [...key].length === 1;

export class Keyboard {
  #mac;
  #modifiers = new Map(); // by code: those that the client holds
  #pressed = new Map();   // by code: what is down in the session
  #dead = false;

  constructor({ mac = false } = {}) {
    this.#mac = mac;
  }

  /* The messages for a keydown; null leaves the event to the browser, whose text input follows. */
  down(event) {
    const { key, location } = event;
    if (event.isComposing || COMPOSED.has(key)) {
      this.#dead ||= key === 'Dead';
      return null;
    }
    if (this.#dead && isCharacter(key) && !event.ctrlKey && !event.metaKey)
      return null;
    if (LOCAL.has(key))
      return [];

    const code = event.code || key;
    if (MODIFIERS.has(key)) {
      this.#modifiers.set(code, { key, location });
      return this.#press(code, key, location);
    }
    this.#dead = false;
    const messages = [...this.#holdWantedModifiers(event), ...this.#press(code, key, location)];
    /* macOS tells no keyup of what is pressed along with Command. */
    return this.#mac && event.metaKey ? [...messages, ...this.#lift(code)] : messages;
  }

  up(event) {
    const code = event.code || event.key;
    this.#modifiers.delete(code);
    /* Windows tells of this key only when it comes up. */
    if (event.key === 'PrintScreen' && !this.#pressed.has(code))
      return [...this.#press(code, event.key, 0), ...this.#lift(code)];
    return this.#lift(code);
  }

  /* What an input method, a dead key or an on-screen keyboard made. */
  text(text) {
    this.#dead = false;
    const messages = this.#hold(() => false);
    for (const character of text) {
      const key = character === '\n' ? 'Enter' : character;
      messages.push(...this.#press('text', key, 0), ...this.#lift('text'));
    }
    return messages;
  }

  stroke(key) {
    return [...this.#press(key, key, 0), ...this.#lift(key)];
  }

  get isHolding() {
    return this.#pressed.size > 0;
  }

  /* The session has let go of everything. */
  forget() {
    this.#pressed.clear();
  }

  release() {
    this.#modifiers.clear();
    this.forget();
    this.#dead = false;
    return [{ type: 'release' }];
  }

  #press(code, key, location) {
    const before = this.#pressed.get(code);
    this.#pressed.set(code, { key, location });
    /* A repeat may make another character than the press, when a modifier went meanwhile. */
    const lifted = before && before.key !== key ? [{ type: 'key', ...before, down: false }] : [];
    return [...lifted, { type: 'key', key, location, down: true }];
  }

  #lift(code) {
    const pressed = this.#pressed.get(code);
    this.#pressed.delete(code);
    return pressed ? [{ type: 'key', ...pressed, down: false }] : [];
  }

  #holdWantedModifiers(event) {
    const { key } = event;
    const isMade = isCharacter(key) && this.#isMadeByModifiers(event);
    const hidesShift = isMade || BEHIND_ALTGR.has(key) && !event.ctrlKey && !event.altKey && !event.metaKey;

    /* Browsers say that Control and Alt are up where they stand for AltGr; and a key-up may have gone elsewhere. */
    return this.#hold(modifier => event.getModifierState(modifier)
      && !(modifier === 'Shift' ? hidesShift : isMade && modifier !== 'Meta'));
  }

  #isMadeByModifiers(event) {
    if (this.#mac)
      return event.altKey && !event.ctrlKey && !event.metaKey;
    /* Where the pair is told as it is, right Alt and what is no shortcut's letter give it away. */
    return event.getModifierState('AltGraph')
      || event.ctrlKey && event.altKey && this.#modifiers.has('AltRight') && !/\w/.test(event.key);
  }

  #hold(isWanted) {
    const messages = [];
    for (const [code, { key, location }] of this.#modifiers)
      if (!isWanted(key))
        messages.push(...this.#lift(code));
      else if (!this.#pressed.has(code))
        messages.push(...this.#press(code, key, location));
    return messages;
  }
}
