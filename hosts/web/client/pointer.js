/* Turns pointer and wheel events into the session's messages. */

/* By the bits of `buttons`: left, right, middle, back, forward. */
const BUTTONS = [1, 3, 2, 8, 9];
/* What one step of a wheel scrolls, by `deltaMode`: pixels, lines, pages. */
const STEP = [100, 3, 1];
const MOST_STEPS = 10;
const MOTION_INTERVAL = 8;

/* A wheel's notch is a step; what touchpads tell adds up to steps. */
export class Wheel {
  #rest = { x: 0, y: 0 };

  message({ deltaX, deltaY, deltaMode }) {
    const x = this.#turn('x', deltaX / STEP[deltaMode]), y = this.#turn('y', deltaY / STEP[deltaMode]);
    return x || y ? { type: 'wheel', x, y } : null;
  }

  #turn(axis, delta) {
    const isNotch = Math.abs(delta) >= 1, isBack = delta * this.#rest[axis] < 0;
    const sum = isNotch || isBack ? delta : this.#rest[axis] + delta;
    const steps = isNotch ? Math.round(sum) : Math.trunc(sum);

    this.#rest[axis] = isNotch ? 0 : sum - steps;
    return Math.max(-MOST_STEPS, Math.min(MOST_STEPS, steps));
  }
}

/* `locate` finds the session's pixel under an event, `press` hears of each first button. */
export function watchPointer(element, { send, locate, press, isActive }) {
  const wheel = new Wheel();
  let buttons = 0, position = null, timer = 0;

  /* The newest position goes out at once, but no more often than screens show one. */
  const flush = () => {
    clearTimeout(timer);
    timer = 0;
    if (position)
      send({ type: 'motion', ...position });
    position = null;
  };
  const setButtons = now => {
    const changed = buttons ^ now;

    buttons = now;
    if (changed)
      flush();
    BUTTONS.forEach((button, bit) => changed & 1 << bit && send({ type: 'button', button, down: Boolean(now & 1 << bit) }));
  };
  /* The press of a second button comes as a motion too. */
  const follow = event => {
    position = locate(event);
    if (!timer) {
      flush();
      timer = setTimeout(flush, MOTION_INTERVAL);
    }
    setButtons(event.buttons);
  };
  const on = (types, listener) => types.forEach(type => element.addEventListener(type, event => {
    if (isActive() && event.isPrimary !== false)
      listener(event);
  }, { passive: false }));

  on(['onpointerrawupdate' in element ? 'pointerrawupdate' : 'pointermove', 'pointerup'], follow);
  on(['pointerdown'], event => {
    element.setPointerCapture(event.pointerId);
    press(event);
    follow(event);
  });
  on(['pointercancel'], () => setButtons(0));
  on(['wheel'], event => {
    const message = wheel.message(event);
    flush();
    if (message)
      send(message);
  });
  /* No menu, no page back, nothing dragged out: all of that is the session's. */
  on(['wheel', 'mousedown', 'mouseup', 'auxclick', 'contextmenu', 'dragstart'], event => event.preventDefault());

  return { get isHolding() { return buttons !== 0; }, forget: () => { buttons = 0; } };
}
