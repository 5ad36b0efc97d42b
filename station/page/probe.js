// Probe, machine and station: whether all works, and their numbers.
import {el, setText} from './dom.js';
import {count, duration, isKnown, parseTime, quantity, time, visible, words} from './format.js';
import {Watcher} from './watcher.js';

const kUseMs = 5_000;

// Units by the last word of a member's name.
const kUnits = [[/Bytes$|^bytes$/, 'byte'], [/Ms$/, 'ms'], [/Seconds$/, 's']];

export class ProbeView {
  constructor(root, {store, api}) {
    this.store = store;
    this.api = api;
    this.values = new Map();
    this.probe = el('dl', {class: 'facts'});
    this.machine = el('dl', {class: 'facts'});
    this.meter = el('dl', {class: 'facts'});
    this.meterPanel = panel('Meter', this.meter);
    this.meterPanel.hidden = true;
    this.station = el('dl', {class: 'facts'});
    this.watcher = new Watcher(store);
    this.use = el('div', {class: 'columns'});
    this.notes = el('ul', {class: 'outside'});
    this.notesPanel = panel('Notes on configuration and playlists', this.notes);
    this.notesPanel.hidden = true;
    root.replaceChildren(
        el('div', {class: 'view'}, el('h1', {text: 'Who watches the watcher'}),
           el('div', {class: 'of-station'}, this.watcher.node), this.notesPanel,
           el('h2', {class: 'numbers', text: 'Numbers'}),
           el('div', {class: 'of-station view'}, panel('Probe', this.probe), panel('Machine', this.machine),
              this.meterPanel, panel('Station', this.station), this.use)));
    this.end = store.on('snapshot', () => this.show());
    this.timer = setInterval(() => this.load(), kUseMs);
    this.show();
    this.load();
  }

  close() {
    this.end();
    clearInterval(this.timer);
  }

  set(list, term, text) {
    const key = `${list.dataset.name ?? ''} ${term}`;
    let value = list.values?.get(term);
    if (!value) {
      value = el('dd', {class: 'outside'});
      list.values ??= new Map();
      list.values.set(term, value);
      list.append(el('div', {}, el('dt', {text: term}), value));
    }
    setText(value, text);
    return key;
  }

  show() {
    const {store} = this;
    const {probe} = store;
    if (!probe || document.hidden) return;
    const at = (text) => time(parseTime(text), store.now());
    const set = (term, text) => this.set(this.probe, term, text);
    set('Delivers results', probe.connected ? 'yes' : 'no');
    set('Asks what to watch', probe.asks ? 'yes' : 'no');
    set('Last snapshot', probe.lastSnapshot ? at(probe.lastSnapshot) : 'none yet');
    set('Last request', probe.lastRequest ? at(probe.lastRequest) : 'none yet');
    set('Restarts seen', count(probe.restarts));
    set('Captured', this.captured());
    set('Snapshots', count(probe.snapshots));
    set('Sequence number', isKnown(probe.sequence) ? String(probe.sequence) : '–');
    set('Snapshots not taken', count(probe.droppedSnapshots));
    set('Lines that were no records', count(probe.droppedLines));
    set('Pipe', probe.pipeProblem ? visible(probe.pipeProblem) : 'well');
    set('Port',
        probe.otherController ? 'another controller holds it' :
            probe.secondAsker ? 'a second probe or program asks as well and is told nothing: stop it' :
                                'well');
  }

  // The sum of all bit rates.
  captured() {
    const {store} = this;
    let sum = 0;
    let known = 0;
    for (const channel of store.channels.values()) {
      const value = store.measure(channel, 'bitRate');
      if (!isKnown(value)) continue;
      sum += value;
      known++;
    }
    return known && store.probe.connected ?
        `${quantity(sum, store.unit('bitRate'))} in ${count(known)} ${known === 1 ? 'channel' : 'channels'}` :
        '–';
  }

  async load() {
    if (document.hidden) return;
    try {
      const status = await this.api.get('status');
      this.showStatus(status);
      const use = await this.api.get('use');
      this.watcher.update(status, use);
      this.showUse(use);
    } catch {
      // The banner says it.
    }
  }

  showStatus(status) {
    const set = (term, text) => this.set(this.station, term, text);
    const started = parseTime(status.started);
    set('Version', visible(status.version));
    set('Started', `${time(started, this.store.now())} · ${duration(this.store.now() - started)}`);
    set('Channels configured', count(status.channels.configured));
    set('Watched', count(status.channels.watched));
    set('With signal', status.probe.connected ? count(status.channels.withSignal) : '–');
    set('Joins groups', status.passive ? 'no, passive' : 'yes');
    this.showMachine(status);
    set('IGMP latency', quantity(status.igmpLatencyMs, 'ms'));
    this.showMeter(status.meter);
    const key = status.notes.join('\n');
    if (key === this.notesKey) return;
    this.notesKey = key;
    this.notesPanel.hidden = status.notes.length === 0;
    this.notes.replaceChildren(...status.notes.map((note) => el('li', {}, el('bdi', {text: visible(note)}))));
  }

  // The interface that the probe captures, and what this machine drops.
  showMachine({machine, passive, probe}) {
    const set = (term, text) => this.set(this.machine, term, text);
    const card = machine.interface;
    const sum = (value) => isKnown(value) ? count(value) : '–';
    set('Interface', card ? visible(card.name) : machine.known ? 'none whose name contains eth0' : '–');
    set('Link',
        machine.linkProblem ? visible(machine.linkProblem) :
            !machine.known  ? `not known${machine.problem ? `: ${visible(machine.problem)}` : '' }` :
             card                                         ? `up${isKnown(card.bitsPerSecond) ? `, ${quantity(card.bitsPerSecond, 'bit/s')}` : ''                                         }` :
                                                                                               '–');
    set('Joins',
        machine.joinProblem                    ? visible(machine.joinProblem) :
            passive                            ? 'passive, nothing is joined' :
            !machine.known || !probe.connected ? '–' :
            machine.rejoins ? `well; groups joined again: ${count(machine.rejoinedGroups)}` :
                              'well');
    if (machine.doubled || this.machine.values?.has('Joined twice'))
      set('Joined twice', machine.doubled ? visible(machine.doubled) : 'none');
    set('Carrier changes', sum(card?.carrierChanges));
    set('Packets received', sum(card?.received.packets));
    set('Damaged frames', sum(card?.received.errors));
    set('Dropped here in the last minute', sum(machine.dropsLastMinute));
    set('Dropped here since the start', sum(machine.drops));
    set('rx_dropped', sum(card?.received.dropped));
    set('rx_missed_errors', sum(card?.received.missed));
    set('rx_fifo_errors', sum(card?.received.fifo));
    set('Backlog: dropped, all interfaces', sum(machine.backlog?.dropped));
    set('Backlog: time squeezes', sum(machine.backlog?.timeSqueeze));
  }

  // Nothing of it where there is none, and none ever was.
  showMeter(meter) {
    this.meterPanel.hidden = !meter || (!meter.connected && !meter.connections && !meter.problem);
    if (this.meterPanel.hidden) return;
    const set = (term, text) => this.set(this.meter, term, text);
    const {capture, joins} = meter;
    const known = (value) => meter.connected ? count(value) : '–';
    set('Connected',
        !meter.connected ? 'no' :
            meter.silent ? 'yes, but it reports nothing' :
                           `since ${time(parseTime(meter.since), this.store.now())}`);
    const wrong = meter.problem ?? capture.problem ?? joins.problem;
    set('Trouble', wrong ? visible(wrong) : 'none');
    set('Version', meter.version ? visible(meter.version) : '–');
    set('Reports', meter.connected ? `${count(meter.reported)} of ${count(meter.groups)} groups` : '–');
    set('Frames dropped by its ring', known(capture.kernelDrops));
    set('Frames dropped by the card', known(capture.cardDrops));
    set('Seconds lost on the way', known(meter.secondsLost));
    set('Joined for a source', known(joins.joined));
  }

  // One panel for the process, and one a part of it, each member under its own name.
  showUse(use) {
    this.lists ??= new Map();
    const plain = Object.fromEntries(Object.entries(use).filter(([, value]) => typeof value !== 'object'));
    this.showPart('What the station uses', plain);
    for (const [name, value] of Object.entries(use)) {
      if (Array.isArray(value))
        value.forEach((part, place) => this.showPart(`${words(name)} ${place + 1}`, part));
      else if (value && typeof value === 'object')
        this.showPart(words(name), value);
    }
  }

  showPart(title, part) {
    let list = this.lists.get(title);
    if (!list) {
      list = el('dl', {class: 'facts'});
      this.lists.set(title, list);
      this.use.append(panel(title, list));
    }
    for (const [name, value] of Object.entries(part)) {
      const unit = kUnits.find(([pattern]) => pattern.test(name))?.[1] ?? '';
      const text = typeof value === 'boolean' ? (value ? 'yes' : 'no') :
          value === null                      ? 'none' :
          /Since$/.test(name)                 ? time(parseTime(value), this.store.now()) :
                                                quantity(value, unit);
      this.set(list, words(name.replace(/(?<=.)(Bytes|Ms|Seconds)$/, '')), text);
    }
  }
}

function panel(title, content) {
  return el('section', {class: 'panel'}, el('div', {class: 'panel-head'}, el('h2', {text: title})), content);
}
