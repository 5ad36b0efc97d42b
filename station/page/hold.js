// Keeps what somebody points at, or goes through by keys, where it is: an order that changed meanwhile is
// taken once the pointer has left or rested, and the keys too.

const kRestMs = 30_000;  // after the last movement or key
const kLeftMs = 1_000;   // after the pointer left
const kLookMs = 500;

export class Hold {
  // Around `node`; `release` is called when what was held back may be done.
  constructor(node, release) {
    this.node = node;
    this.release = release;
    this.until = 0;
    this.waits = false;
    this.moved = () => {
      this.until = Date.now() + kRestMs;
    };
    this.left = () => {
      this.until = Math.min(this.until, Date.now() + kLeftMs);
    };
    this.keyed = () => {
      if (node.contains(document.activeElement)) this.moved();
    };
    node.addEventListener('pointermove', this.moved);
    node.addEventListener('pointerdown', this.moved);
    node.addEventListener('pointerleave', this.left);
    node.addEventListener('keydown', this.keyed);
    node.addEventListener('keyup', this.keyed);
  }

  // Whether it is held at this moment; release() comes later if so.
  get holds() {
    if (Date.now() >= this.until) return false;
    if (!this.waits) {
      this.waits = true;
      this.timer = setInterval(() => this.look(), kLookMs);
    }
    return true;
  }

  look() {
    if (Date.now() < this.until) return;
    this.end();
    this.release();
  }

  end() {
    this.waits = false;
    clearInterval(this.timer);
  }

  close() {
    this.end();
    this.until = 0;
  }
}
