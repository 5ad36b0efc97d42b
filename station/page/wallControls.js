// What is chosen of the wall: search, state, alarm, labels, order, groups, tiles or table.
import {titleOf} from './alarmWords.js';
import {button, el, setAttribute, setText} from './dom.js';
import {labelNames} from './filter.js';
import {count, visible} from './format.js';
import {kOrders, readSort} from './order.js';
import {sign} from './state.js';

const kMostLabels = 500;
const kLongestLabel = 40;

const shortened = (text) => visible(text.length > kLongestLabel ? `${text.slice(0, kLongestLabel)}…` : text);

// Sets the options of a select where they are others; those are [value, text].
function setOptions(select, options, value) {
  const key = JSON.stringify(options);
  if (select.optionsKey !== key) {
    select.optionsKey = key;
    select.replaceChildren(...options.map(([one, text]) => el('option', {value: one, text})));
  }
  select.value = value;
}

export class WallControls {
  // `choose(change)` is called with what of the filter is chosen anew; `toggles`: for tiles or table, and for
  // pictures.
  constructor(store, filter, choose, toggles) {
    this.store = store;
    this.filter = filter;
    this.search = el('input', {
      type: 'search',
      placeholder: 'Search name, group, label',
      'aria-label': 'Search channels by name, group and label',
      value: filter.q,
      spellcheck: 'false',
      'aria-keyshortcuts': '/'
    });
    this.search.addEventListener('input', () => choose({q: this.search.value}));
    const select = (label, take) => {
      const node = el('select', {'aria-label': label});
      node.addEventListener('change', () => choose(take(node.value)));
      return node;
    };
    this.choose = choose;
    this.alarm = select('Alarm', (alarm) => ({alarm}));
    this.label = select('Labels', (label) => ({labels: [...new Set([...filter.labels, label])]}));
    this.sort = select('Order', (sort) => ({sort}));
    this.by = select('Groups', (by) => ({by, fold: new Set()}));
    this.states = el('div', {class: 'choices', role: 'group', 'aria-label': 'State'});
    this.chips = el('span', {class: 'chips'});
    this.found = el('span', {class: 'note', role: 'status'});
    this.viewButton = button('', toggles.table);
    this.pictureButton = button('Pictures', toggles.pictures);
    this.node =
        el('div', {class: 'controls', role: 'search'}, el('h1', {class: 'unseen', text: 'Channels'}),
           this.search, this.states, this.alarm, this.label, this.chips, this.sort, this.by, this.viewButton,
           this.pictureButton, this.found);
  }

  // After the set of channels, alarms or what is chosen changed.
  update(asTable) {
    const {store, filter} = this;
    setText(this.viewButton, asTable ? 'Tiles' : 'Table');
    setAttribute(this.viewButton, 'title', asTable ? 'Show tiles' : 'Show a table');
    const pictured = filter.pictures === 'on' && !asTable;
    setAttribute(this.pictureButton, 'aria-pressed', String(pictured));
    setAttribute(
        this.pictureButton, 'title', pictured ? 'Tiles without pictures' : 'Tiles with the newest pictures');
    this.pictureButton.hidden = !store.isPictured && !pictured;
    const {name} = readSort(filter.sort);
    const column = store.meta?.wallColumns.find(({field}) => field === name);
    const orders = [...kOrders];
    if (!orders.some(([one]) => one === filter.sort) && filter.sort)
      orders.push([
        filter.sort,
        `by ${visible(column?.heading ?? name).toLowerCase()}${filter.sort === name ? '' : ', down'}`
      ]);
    setOptions(this.sort, orders, filter.sort || 'trouble');
    this.updateAlarms();
    this.updateLabels();
    this.updateStates();
  }

  updateAlarms() {
    const {store, filter} = this;
    const counts = new Map();
    for (const {alarm, group} of store.alarms ?? [])
      if (group) counts.set(alarm, (counts.get(alarm) ?? 0) + 1);
    if (filter.alarm && !counts.has(filter.alarm)) counts.set(filter.alarm, 0);
    const options =
        [...counts].map(([alarm, total]) => [alarm, `${titleOf(store, {alarm})} (${count(total)})`]);
    options.sort(([, a], [, b]) => a.localeCompare(b));
    this.alarm.hidden = options.length === 0;
    setOptions(this.alarm, [['', 'all alarms'], ...options], filter.alarm);
  }

  updateLabels() {
    const {store, filter} = this;
    const labels = new Set();
    for (const {labelTexts} of store.channels.values())
      for (const label of labelTexts) labels.add(label);
    const rest = [...labels].filter((label) => !filter.labels.includes(label)).sort().slice(0, kMostLabels);
    this.label.hidden = rest.length === 0;
    const first = filter.labels.length ? 'and label …' : 'all labels';
    setOptions(this.label, [['', first], ...rest.map((label) => [label, shortened(label)])], '');
    const names = labelNames(store);
    if (filter.by && !names.includes(filter.by)) names.push(filter.by);
    this.by.hidden = names.length === 0;
    setOptions(
        this.by, [['', 'no groups'], ...names.map((one) => [one, `groups: ${shortened(one)}`])], filter.by);
    const key = filter.labels.join('\n');
    if (key === this.chipsKey) return;
    this.chipsKey = key;
    this.chips.replaceChildren(...filter.labels.map(
        (label) => button(
            `${shortened(label)} ✕`,
            () => this.choose({labels: filter.labels.filter((one) => one !== label)}),
            {class: 'chip', 'aria-label': `Without the filter ${label}`})));
  }

  // A choice a state, with how many channels are in it.
  updateStates() {
    const {store, filter} = this;
    if (!store.meta) return;
    const counts = new Map();
    let open = 0;
    for (const channel of store.channels.values()) {
      const state = store.value(channel, 'state') ?? 'waiting';
      counts.set(state, (counts.get(state) ?? 0) + 1);
      if (store.value(channel, 'unacknowledged') > 0) open++;
    }
    const choices = [
      ['', 'all', store.channels.size],
      ...store.meta.states.map((state) => [state, state, counts.get(state) ?? 0]),
      ['new', 'not acknowledged', open]
    ];
    if (!this.choices) {
      this.choices = new Map(choices.map(([value, text]) => {
        const number = el('b');
        const mark = store.meta.states.includes(value) ?
            el('span', {class: 'sign', 'aria-hidden': 'true', text: `${sign(value)} `}) :
            null;
        const node =
            el('button', {type: 'button', on: {click: () => this.choose({state: value})}}, mark, `${text} `,
               number);
        return [value, {node, number}];
      }));
      this.states.replaceChildren(...[...this.choices.values()].map(({node}) => node));
    }
    for (const [value, , total] of choices) {
      const {node, number} = this.choices.get(value);
      setText(number, count(total));
      setAttribute(node, 'aria-pressed', String(filter.state === value));
    }
  }

  // How many pass, and where the search looked.
  showFound(shown, held) {
    const {filter, store} = this;
    const filtered = filter.q || filter.state || filter.alarm || filter.labels.length;
    const parts = [
      filtered ? `${count(shown)} of ${count(store.channels.size)}` : '',
      filter.q ? 'found in names, groups and labels' : '', held ? 'order waits for the pointer or keys' : ''
    ];
    setText(this.found, parts.filter(Boolean).join(' · '));
  }
}
