/* The heads of the session, a canvas each, in their places. */

const HEADER = 14, RECT = 16;
const FORMS = ['image/png', 'image/jpeg'];

const limit = (value, low, high) => Math.max(low, Math.min(high, value));

/* An update's serial, head and pictures, which are decoded while earlier ones are drawn. */
function parse(buffer) {
  const view = new DataView(buffer);
  const rects = [];
  let at = HEADER + RECT * view.getUint16(12, true);

  for (let i = HEADER; rects.length < view.getUint16(12, true); i += RECT) {
    const length = view.getUint32(i + 12, true);
    const blob = new Blob([new Uint8Array(buffer, at, length)], { type: FORMS[view.getUint8(i + 8)] });
    at += length;
    rects.push(createImageBitmap(blob, { colorSpaceConversion: 'none', premultiplyAlpha: 'none' })
      .then(bitmap => ({ bitmap, x: view.getUint16(i, true), y: view.getUint16(i + 2, true) })));
  }
  return {
    head: view.getUint32(0, true), serial: view.getUint32(4, true),
    width: view.getUint16(8, true), height: view.getUint16(10, true), rects: Promise.all(rects),
  };
}

export class Screen {
  heads = [];
  isActual = false;
  #stage;
  #element;
  #canvases = new Map(); // by the head's id
  #bounds = { x: 0, y: 0, width: 1, height: 1 };
  #scale = 1;
  #last = Promise.resolve();

  constructor(stage, element) {
    this.#stage = stage;
    this.#element = element;
    new ResizeObserver(() => this.arrange()).observe(stage);
  }

  /* Layouts and updates take effect in the order they came in. */
  setHeads(heads) {
    return this.#last = this.#last.then(() => this.#setHeads(heads));
  }

  update(buffer) {
    const { rects, ...update } = parse(buffer);
    rects.catch(() => {}); // until its turn comes
    return this.#last = this.#last.then(async () => this.#draw(update, await rects.catch(() => [])));
  }

  #setHeads(heads) {
    this.heads = heads;
    for (const [id, canvas] of this.#canvases)
      if (!heads.some(head => head.id === id)) {
        canvas.remove();
        this.#canvases.delete(id);
      }
    for (const { id, name, width, height } of heads) {
      const canvas = this.#canvases.get(id) ?? document.createElement('canvas');
      this.#canvases.set(id, canvas);
      canvas.dataset.head = id;
      canvas.setAttribute('role', 'img');
      canvas.setAttribute('aria-label', `Monitor ${name}`);
      if (canvas.width !== width || canvas.height !== height)
        Object.assign(canvas, { width, height });
      this.#element.append(canvas);
    }
    this.arrange();
  }

  #draw({ head, serial, width, height }, pictures) {
    const canvas = this.#canvases.get(head);
    const isCurrent = canvas && canvas.width === width && canvas.height === height;
    /* Drawn without waiting for the page's compositor, where the system can. */
    const context = isCurrent && canvas.getContext('2d', { alpha: false, desynchronized: true });

    for (const { bitmap, x, y } of pictures) {
      if (isCurrent)
        context.drawImage(bitmap, x, y);
      bitmap.close();
    }
    if (isCurrent && pictures.length)
      canvas.dataset.drawn = serial;
    return serial;
  }

  arrange() {
    const left = Math.min(...this.heads.map(head => head.x)), top = Math.min(...this.heads.map(head => head.y));
    const right = Math.max(...this.heads.map(head => head.x + head.width));
    const bottom = Math.max(...this.heads.map(head => head.y + head.height));
    const { clientWidth, clientHeight } = this.#stage;
    if (!this.heads.length || !clientWidth || !clientHeight)
      return;

    this.#bounds = { x: left, y: top, width: right - left, height: bottom - top };
    this.#scale = this.isActual ? 1 / devicePixelRatio
      : Math.min(clientWidth / this.#bounds.width, clientHeight / this.#bounds.height);
    const place = (element, x, y, width, height) => Object.assign(element.style,
      { left: `${x}px`, top: `${y}px`, width: `${width}px`, height: `${height}px` });
    const width = this.#bounds.width * this.#scale, height = this.#bounds.height * this.#scale;
    place(this.#element, Math.max(0, (clientWidth - width) / 2), Math.max(0, (clientHeight - height) / 2), width, height);
    for (const head of this.heads)
      place(this.#canvases.get(head.id), ...this.toPage(head.x, head.y), head.width * this.#scale, head.height * this.#scale);
  }

  toPage(x, y) {
    return [(x - this.#bounds.x) * this.#scale, (y - this.#bounds.y) * this.#scale];
  }

  /* The session's pixel under the event, else the nearest one that a head shows. */
  locate({ clientX, clientY }) {
    const box = this.#element.getBoundingClientRect();
    const x = Math.floor((clientX - box.left) / this.#scale) + this.#bounds.x;
    const y = Math.floor((clientY - box.top) / this.#scale) + this.#bounds.y;
    const pixels = this.heads.map(head => ({
      x: limit(x, head.x, head.x + head.width - 1), y: limit(y, head.y, head.y + head.height - 1),
    }));
    const distance = pixel => Math.hypot(pixel.x - x, pixel.y - y);

    return pixels.reduce((near, pixel) => distance(pixel) < distance(near) ? pixel : near, pixels[0]);
  }
}
