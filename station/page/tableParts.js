// Cells and heads that lists have in common.
import {el, setAttribute} from './dom.js';
import {nameText, visible} from './format.js';
import {sign} from './state.js';

const kLongestName = 80;

function shortened(text) {
  const shown = visible(text);
  return shown.length > kLongestName ? `${shown.slice(0, kLongestName - 1)}…` : shown;
}

// Without a group an alarm is one of the probe; other events may be of neither.
export function channelCell({group, channel, alarm}) {
  if (!group) return el('td', {class: 'muted', text: alarm ? 'probe' : visible(channel)});
  return el(
      'td', {class: 'text-cell'},
      el('a', {href: `#channel/${group}`}, el('bdi', {text: shortened(nameText(channel, group))})));
}

export function severityCell(severity) {
  return el(
      'td', {class: `nowrap is-${severity}`},
      severity ? el('span', {class: 'sign', 'aria-hidden': 'true', text: sign(severity)}) : null,
      el('span', {class: 'word', text: ` ${severity ?? ''}`}));
}

// A row of heads. `columns`: [{text, name, number, wide}]: with a name it sorts, `number` puts it to the
// right, `wide` leaves it out where there is no room. `sort` is the order as the address has it, "name" or
// "-name" for the other way round; onSort(sort) when another is chosen.
export class Heads {
  constructor(columns, sort = '', onSort = null) {
    this.sort = sort;
    this.cells = columns.map((column) => {
      const node = el('th', {scope: 'col', class: className(column)});
      if (!column.name || !onSort)
        node.append(visible(column.text));
      else {
        node.append(el('button', {
          type: 'button',
          class: 'plain',
          text: visible(column.text),
          on: {
            click: () => {
              this.show(this.sort === column.name ? `-${column.name}` : column.name);
              onSort(this.sort);
            }
          }
        }));
      }
      return {name: column.name, node};
    });
    this.node = el('tr', {}, ...this.cells.map(({node}) => node));
    this.show(sort);
  }

  show(sort) {
    this.sort = sort;
    for (const {name, node} of this.cells) {
      if (!name) continue;
      const order = sort === name ? 'ascending' : sort === `-${name}` ? 'descending' : null;
      setAttribute(node, 'aria-sort', order);
    }
  }
}

function className({number, wide, kind}) {
  return [number ? 'number' : '', wide ? 'wide-only' : '', kind ?? ''].filter(Boolean).join(' ');
}

// Compares by what `take` gives, numbers and texts; what is unknown comes last both ways.
export function comparing(take, descending) {
  const turn = descending ? -1 : 1;
  return (one, other) => {
    const [a, b] = [take(one), take(other)];
    const unknown = (value) => value === null || value === undefined || Number.isNaN(value);
    if (unknown(a) || unknown(b)) return Number(unknown(a)) - Number(unknown(b));
    if (typeof a === 'string') return turn * texts.compare(a, b);
    return turn * (a - b);
  };
}

const texts = new Intl.Collator(undefined, {numeric: true, sensitivity: 'base'});
