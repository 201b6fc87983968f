/* The session's cursor, worn by the element; where somebody else moves the pointer, an image shows it there. */

export class Cursors {
  #element;
  #send;
  #known = new Map();
  #current = null;
  #place = null; /* where somebody else has moved the pointer */
  #image = document.createElement('img');

  constructor(element, send) {
    this.#element = element;
    this.#send = send;
    this.#image.alt = '';
  }

  use({ id, png, width, height, x, y }) {
    if (png !== undefined)
      this.#known.set(id, { url: `data:image/png;base64,${png}`, width, height, x, y });
    if (!this.#known.has(id))
      return this.#send({ type: 'require-cursor', id });

    const cursor = this.#current = this.#known.get(id);
    this.#element.style.cursor = cursor.width ? `url(${cursor.url}) ${cursor.x} ${cursor.y}, default` : 'none';
    this.#image.src = cursor.width ? cursor.url : 'data:,';
    this.#draw();
  }

  evict(id) {
    this.#known.delete(id);
  }

  forget() {
    this.#known.clear();
    this.hide();
  }

  show(left, top) {
    this.#place = { left, top };
    this.#draw();
  }

  hide() {
    this.#place = null;
    this.#draw();
  }

  #draw() {
    if (!this.#place || !this.#current?.width)
      return this.#image.remove();
    this.#image.style.left = `${this.#place.left - this.#current.x}px`;
    this.#image.style.top = `${this.#place.top - this.#current.y}px`;
    if (!this.#image.isConnected)
      this.#element.append(this.#image);
  }
}
