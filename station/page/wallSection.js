// A part of the wall: the channels of one value of the label that is grouped by, under a head that counts and
// folds them. Without grouping there is one, without a head.
import {el, setAttribute, setText} from './dom.js';
import {count, visible} from './format.js';
import {look, sign} from './state.js';

// Signs and numbers of channels by what they look like, worst first: "✕ 2  ▲ 1  ✓ 17".
export class Tally {
  constructor() {
    this.node = el('span', {class: 'tally'});
    this.key = '';
  }

  update(store, channels) {
    const counts = new Map();
    for (const channel of channels) {
      const name = look(store.value(channel, 'state'), store.value(channel, 'severity'));
      counts.set(name, (counts.get(name) ?? 0) + 1);
    }
    const names = [...(store.meta?.severities ?? []), 'alarm', 'waiting', 'ok', 'disabled'];
    const shown = names.filter((name) => counts.has(name)).map((name) => [name, counts.get(name)]);
    const key = shown.join();
    if (key === this.key) return;
    this.key = key;
    this.node.replaceChildren(...shown.map(
        ([name, total]) =>
            el('span', {class: `is-${name}`},
               el('span', {class: 'sign', 'aria-hidden': 'true', text: sign(name)}), ` ${count(total)}`,
               el('span', {class: 'unseen', text: ` ${name}`}))));
  }
}

// What a head has: a button that folds, the value, how many there are, and a tally.
export class GroupHead {
  constructor(name, onFold) {
    this.mark = el('span', {'aria-hidden': 'true'});
    this.total = el('span', {class: 'muted'});
    this.tally = new Tally();
    this.button =
        el('button', {type: 'button', class: 'plain', on: {click: onFold}}, this.mark,
           el('bdi', {text: visible(name)}));
    this.nodes = [this.button, this.total, this.tally.node];
  }

  update(store, channels, folded, total = `${count(channels.length)} channels`) {
    setText(this.mark, folded ? '▸ ' : '▾ ');
    setAttribute(this.button, 'aria-expanded', String(!folded));
    setText(this.total, total);
    this.tally.update(store, channels);
  }
}

export class WallSection {
  // `value` is null without grouping; `columns` of the table, 0 for tiles.
  constructor(value, by, columns, onFold) {
    const asTable = columns > 0;
    const name = value === '' ? `without ${by}` : value;
    this.value = value;
    this.list = asTable ?
        el('tbody') :
        el('ul', {class: 'tiles', 'aria-label': value === null ? 'Channels' : visible(name)});
    this.nodes = [this.list];
    if (value === null) return;
    this.head = new GroupHead(name, () => onFold(value));
    this.nodes.unshift(
        asTable ?
            el('tbody', {class: 'group-row'},
               el('tr', {}, el('th', {colspan: String(columns), scope: 'rowgroup'}, ...this.head.nodes))) :
            el('h2', {class: 'group-head'}, ...this.head.nodes));
  }
}
