/* One WebSocket after another: what arrives goes to the handlers, and a connection that was lost is made again, after a
 * delay that grows. A server that answers nothing any more counts as lost. */

const FIRST_DELAY = 250, LAST_DELAY = 4000, PING_INTERVAL = 2000, SILENCE = 6000;
/* While something is held down: the server lets go of what a page holds that it does not hear. */
const HOLDING_INTERVAL = 250;

export class Connection {
  #url;
  #handlers;
  #socket = null;
  #delay = FIRST_DELAY;
  #retry = 0;
  #asked = 0; // when the first unanswered ping was sent
  #pinged = 0; // when the last one was

  constructor(url, handlers) {
    this.#url = url;
    this.#handlers = handlers;
    setInterval(() => this.#ping(handlers.isHolding() ? 0 : PING_INTERVAL), HOLDING_INTERVAL);
    addEventListener('online', () => this.#open());
    this.#open();
  }

  send(message) {
    if (this.#socket?.readyState === WebSocket.OPEN)
      this.#socket.send(JSON.stringify(message));
  }

  #open() {
    if (this.#socket)
      return;
    clearTimeout(this.#retry);
    const socket = this.#socket = new WebSocket(this.#url);
    socket.binaryType = 'arraybuffer';
    socket.onopen = () => {
      this.#delay = FIRST_DELAY;
      this.#asked = 0;
      this.#handlers.opened();
      this.#ping(0);
    };
    socket.onmessage = ({ data }) => this.#receive(data);
    socket.onclose = event => this.#lose(event.reason);
  }

  #receive(data) {
    if (typeof data !== 'string')
      return this.#handlers.update(data);
    const message = JSON.parse(data);
    if (message.type !== 'pong')
      return this.#handlers.message(message);
    this.#asked = 0;
    this.#handlers.latency(performance.now() - message.time);
  }

  #ping(interval) {
    const now = performance.now();
    if (this.#socket?.readyState !== WebSocket.OPEN || now - this.#pinged < interval)
      return;
    if (this.#asked && now - this.#asked > SILENCE)
      return this.#lose('');
    this.#asked ||= now;
    this.#pinged = now;
    this.send({ type: 'ping', time: now });
  }

  #lose(reason) {
    const socket = this.#socket;
    socket.onopen = socket.onmessage = socket.onclose = null;
    socket.close();
    this.#socket = null;
    this.#handlers.lost(reason);
    this.#retry = setTimeout(() => this.#open(), this.#delay * (0.8 + 0.4 * Math.random()));
    this.#delay = Math.min(2 * this.#delay, LAST_DELAY);
  }
}
