// From a channel in trouble to the next: the order is that of the wall.
import {el, setAttribute, setText} from './dom.js';
import {arrange} from './order.js';

const kKeys = {
  n: 1,
  p: -1
};

export class Troubles {
  constructor(store, group) {
    this.store = store;
    this.group = group;
    this.previous = el('a', {text: '‹ Previous', 'aria-keyshortcuts': 'p'});
    this.next = el('a', {text: 'Next ›', 'aria-keyshortcuts': 'n'});
    this.place = el('span', {class: 'note'});
    this.node =
        el('nav', {class: 'troubles no-print', 'aria-label': 'Channels in trouble'}, this.previous,
           this.place, this.next);
    this.ends = [store.on('snapshot', () => this.update()), store.on('channels', () => this.update())];
    this.press = (event) => this.pressed(event);
    addEventListener('keydown', this.press);
    this.update();
  }

  close() {
    removeEventListener('keydown', this.press);
    for (const end of this.ends) end();
  }

  update() {
    const list = arrange(this.store, {state: 'alarm'}).map(({group}) => group);
    const at = list.indexOf(this.group);
    const others = list.length - (at < 0 ? 0 : 1);
    this.node.hidden = others === 0;
    if (this.node.hidden) return;
    const step = (by) =>
        list[(at < 0 ? (by > 0 ? 0 : list.length - 1) : at + by + list.length) % list.length];
    setAttribute(this.next, 'href', `#channel/${step(1)}`);
    setAttribute(this.previous, 'href', `#channel/${step(-1)}`);
    setText(this.place, at < 0 ? `${list.length} in trouble` : `${at + 1} of ${list.length} in trouble`);
  }

  pressed(event) {
    const step = kKeys[event.key];
    const typing = event.target.closest?.('input, textarea, select, dialog');
    if (!step || typing || this.node.hidden || event.ctrlKey || event.metaKey || event.altKey) return;
    location.hash = (step > 0 ? this.next : this.previous).getAttribute('href');
  }
}
