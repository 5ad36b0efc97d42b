// The time that a channel's plots show: what is chosen, zoomed to, laid over, and the address that says so.
import {button, el, setAttribute, setClass, setText} from './dom.js';
import {save} from './eventFile.js';
import {nameText, time} from './format.js';
import {ChannelPicker} from './picker.js';
import {plotFile} from './plotFile.js';
import {kRanges, Plots} from './plots.js';

const kDay = 86_400_000;
const kBefore = {
  '1d': {shift: kDay, name: 'the day before'},
  '7d': {shift: 7 * kDay, name: 'the week before'}
};
const kOther = 'other';
const kHint =
    'Drag to zoom all, double-click to see all; click to keep a time in the address. With the keyboard: arrows, ' +
    'plus and minus, Enter, Escape.';

function timeOf(text) {
  const at = Date.parse(text ?? '');
  return Number.isNaN(at) ? null : at;
}

export class PlotPanel {
  // onTime(): another time, or none, was chosen.
  constructor(context, group, parameters, onTime) {
    this.context = context;
    this.store = context.store;
    this.group = group;
    this.onTime = onTime;
    this.plots = new Plots(context, group, {
      onPick: (at) => this.choose(at),
      onZoom: () => this.keepAddress(),
      onCoarser: (window) => this.showRange(kRanges[1], window)
    });
    this.read(parameters);
    this.build();
    this.plots.onWindow(() => this.showCursor());
  }

  close() {
    this.plots.close();
  }

  // Of the address: t, a chosen time; r, seconds a point has; from and to, what is zoomed to; over, what is
  // laid over: "1d", "7d" or a group.
  read(parameters) {
    const mark = timeOf(parameters.get('t'));
    const [from, to] = [timeOf(parameters.get('from')), timeOf(parameters.get('to'))];
    this.at = mark === null ? null : new Date(mark);
    this.window = from !== null && to > from ? [from, to] : null;
    const oldest = this.window?.[0] ?? mark;
    const asked = kRanges.find(({resolution}) => String(resolution) === parameters.get('r'));
    const isPast = oldest !== null && this.store.now() - oldest > kRanges[0].length;
    // Of what is further back there are no seconds.
    this.range = asked ?? kRanges[0];
    const isGone = isPast && this.range === kRanges[0];
    if (isGone) this.range = kRanges[1];
    if (isGone && this.window && this.window[1] - this.window[0] < kRanges[0].length) {
      const middle = (this.window[0] + this.window[1]) / 2;
      this.window = [middle - kRanges[0].length / 2, middle + kRanges[0].length / 2];
    }
    this.over = this.overOf(parameters.get('over') ?? '');
  }

  overOf(text) {
    if (Object.hasOwn(kBefore, text)) {
      if (this.range === kRanges[0]) this.range = kRanges[1];  // there are no seconds of yesterday
      return {...kBefore[text], group: this.group, key: text};
    }
    if (!/^\d+(\.\d+){3}$/.test(text) || text === this.group) return null;
    const name = this.store.channels.get(text)?.info.name;
    return {shift: 0, group: text, name: nameText(name, text), key: text};
  }

  build() {
    this.rangeButtons = kRanges.map((range) => button(range.name, () => this.showRange(range)));
    this.timeText = el('span', {class: 'muted', role: 'status'});
    this.copy = button('Copy link', () => this.copyLink());
    this.live = button('Back to now', () => this.choose(null));
    this.earlier = button('‹ Earlier', () => this.plots.pan(-1));
    this.later = button('Later ›', () => this.plots.pan(1));
    this.file = button(
        'CSV', () => save(plotFile(this.plots, this.channel())),
        {title: 'What the plots show, with units and zone'});
    this.choice =
        el('select', {'aria-label': 'Lay over'}, el('option', {value: '', text: 'nothing laid over'}),
           ...Object.entries(kBefore).map(([value, {name}]) => el('option', {value, text: `over ${name}`})),
           el('option', {value: kOther, text: 'over another channel'}));
    this.choice.addEventListener('change', () => this.chooseOver());
    this.picker = new ChannelPicker(this.store, '');
    setAttribute(this.picker.input, 'aria-label', 'Channel to lay over');
    this.picker.input.addEventListener('change', () => this.chooseOver());
    this.title = el('h2', {text: 'Plots'});
    this.place = el('div', {class: 'plot-place'});
    this.cursor = el('p', {class: 'plot-cursor'});
    this.legend = el('p', {class: 'note plot-legend'});
    this.node =
        el('section', {class: 'panel'},
           el('div', {class: 'panel-head small-controls'}, this.title, this.timeText, this.copy, this.live,
              el('span', {class: 'choices', role: 'group', 'aria-label': 'Time'}, ...this.rangeButtons)),
           el('div', {class: 'plot-controls small-controls'}, this.cursor, this.picker.input,
              this.picker.list, this.choice, this.earlier, this.later, this.file),
           this.plots.problem, this.plots.note, this.place, this.legend,
           el('p', {class: 'note no-print', text: kHint}));
    this.showOver();
  }

  channel() {
    return {group: this.group, name: this.store.channels.get(this.group)?.info.name ?? ''};
  }

  show() {
    const {window, over} = this;
    this.plots.show(this.range, {mark: this.at?.getTime() ?? null, window, over});
    this.window = null;
    this.keepAddress();
  }

  showRange(range, window = null) {
    this.range = range;
    this.window = window;
    if (range === kRanges[0] && this.over?.shift) this.over = null;
    this.showOver();
    this.show();
  }

  // A time in the past becomes part of the address; null goes back to now.
  choose(at) {
    this.at = at;
    if (at && this.plots.window) this.window = this.plots.window;
    this.show();
    this.onTime();
  }

  chooseOver() {
    const {value} = this.choice;
    this.picker.input.hidden = value !== kOther;
    if (value === kOther && !this.picker.channel()) {
      this.picker.input.focus();
      if (!this.over) return;
    }
    this.window = this.plots.window;
    this.over = this.overOf(value === kOther ? this.picker.channel()?.group ?? '' : value);
    this.show();
  }

  showOver() {
    const {over} = this;
    this.choice.value = !over ? '' : over.shift ? over.key : kOther;
    this.picker.input.hidden = !over || Boolean(over.shift);
    if (over && !over.shift) this.picker.input.value = over.group;
  }

  keepAddress() {
    const {at, range, over, plots} = this;
    const parameters = [];
    const iso = (ms) => new Date(Math.round(ms)).toISOString();
    if (at) parameters.push(['t', at.toISOString()]);
    if (at || range !== kRanges[0]) parameters.push(['r', range.resolution]);
    if (plots.window && !this.isAroundMark())
      parameters.push(['from', iso(plots.window[0])], ['to', iso(plots.window[1])]);
    if (over) parameters.push(['over', over.key]);
    this.context.replaceAddress(`channel/${this.group}`, parameters);
    setText(this.timeText, at ? `at ${time(at)}` : '');
    this.copy.hidden = this.live.hidden = !at && !plots.window;
    this.later.disabled = !plots.window;
    setClass(this.node, at || plots.window ? 'panel past' : 'panel');
    this.rangeButtons.forEach(
        (node, place) => setAttribute(node, 'aria-pressed', String(kRanges[place] === range)));
  }

  // Whether the window is what a chosen time shows by itself.
  isAroundMark() {
    const {mark, window, range} = this.plots;
    return mark !== null && window[0] === mark - range.length / 10 && window[1] === mark + range.length / 10;
  }

  showCursor() {
    const {plots} = this;
    setText(this.cursor, plots.cursorText());
    const {severities, maintenance} = plots.bands.within(...plots.dateWindow());
    const key = `${severities.join()} ${maintenance} ${this.over?.key}`;
    if (key === this.legendKey) return;
    this.legendKey = key;
    const entry = (kind, text) =>
        el('span', {class: 'legend'}, el('span', {class: `swatch ${kind}`, 'aria-hidden': 'true'}), text);
    this.legend.replaceChildren(
        ...(this.over ? [entry('second', this.over.name)] : []),
        ...severities.map((severity) => entry(`is-${severity}`, `${severity} alarm raised`)),
        ...(maintenance ? [entry('hatched', 'maintenance')] : []));
  }

  async copyLink() {
    try {
      await navigator.clipboard.writeText(location.href);
      setText(this.copy, 'Copied');
    } catch {
      setText(this.copy, 'Copy it from the address bar');
    }
    setTimeout(() => setText(this.copy, 'Copy link'), 2_000);
  }
}
