// Who watches the watcher: each part that has to work for the page to be right, in a sentence, with what is
// normal. It needs the station alone, so that it tells what is wrong while probe or meter are silent.
import {el, setClass, setText} from './dom.js';
import {count, duration, isKnown, parseTime, quantity, roughly, time, visible} from './format.js';
import {sign} from './state.js';

const kMostAheadMs = 5_000;  // of one clock before the other

// How verdicts look: a class and a sign each, as states have.
const kLooks = {
  well: ['ok', 'well'],
  note: ['warning', 'to note'],
  wrong: ['major', 'wrong'],
  unknown: ['waiting', 'unknown']
};

const well = (text) => ['well', text];
const note = (text) => ['note', text];
const wrong = (text) => ['wrong', visible(text)];
const unknown = (text = 'not known') => ['unknown', visible(text)];
const noneIsWell = (value, text, judge = wrong) =>
    (!isKnown(value) ? unknown() :
         value       ? judge(text ?? count(value)) :
                       well('none'));

// Rows of each part: [what, [verdict, text], what is normal].
function ofProbe({probe}, now) {
  const last = probe.lastSnapshot ? `the last at ${time(parseTime(probe.lastSnapshot), now)}` : 'none yet';
  const lost = probe.droppedSnapshots + probe.droppedLines + probe.tooLargeSnapshots;
  return [
    [
      'Results', probe.connected ? well(`come, ${last}`) : wrong(`none: ${probe.problem ?? last}`),
      'each second'
    ],
    [
      'Questions',
      probe.asks ? well('it asks what to watch') :
                   wrong('it does not ask: changes of channels do not reach it'),
      'it asks all the time'
    ],
    [
      'Port',
      probe.otherController ? wrong('another controller holds it') :
          probe.secondAsker ? wrong('a second probe or program asks as well and is told nothing: stop it') :
                              well('one probe alone asks'),
      'one probe alone asks'
    ],
    [
      'Pipe', probe.pipeProblem ? wrong(probe.pipeProblem) : well('open'),
      'open, and read by the station alone'
    ],
    [
      'Restarts', noneIsWell(probe.restarts, `${count(probe.restarts)} since the station was started`, note),
      'none but for upgrades'
    ],
    ['Lost results', noneIsWell(lost, `${count(lost)} snapshots or lines were not taken`), 'none'],
  ];
}

function ofCard({machine}) {
  const card = machine.interface;
  if (!machine.known) return [['Card', unknown(machine.problem ?? undefined), 'known']];
  const speed = isKnown(card?.bitsPerSecond) ? `, ${quantity(card.bitsPerSecond, 'bit/s')}` : '';
  const drops = machine.dropsLastMinute;
  return [
    [
      'Link',
      machine.linkProblem ? wrong(machine.linkProblem) :
          card            ? well(`${visible(card.name)} is up${speed}`) :
                            unknown(),
      'up'
               ],
               [
      'Captured',
      card ? (card.captured ? well('somebody captures there') : wrong('nobody captures there')) : unknown(),
      'the probe captures there'
               ],
               [
      'Dropped here',
      drops ? wrong(`${count(drops)} packets in the last minute: losses may be this machine's`) :
                     machine.drops ?
                         note(`none in the last minute, ${count(machine.drops)} since the station was started`) :
                         noneIsWell(machine.drops),
                 'none'
               ],
               [
      'Damaged frames',
      noneIsWell(card?.received.errors, card && `${count(card.received.errors)} since the card is up`, note),
                 'none'
    ],
               [
      'Carrier', card ? well(`${count(card.carrierChanges)} losses and returns since boot`) : unknown(),
                 'does not grow'
    ],
             ];
}

function ofMemberships({machine, passive, probe}) {
  const joined = machine.joinProblem ? wrong(machine.joinProblem) :
      passive                        ? well('passive: nothing is joined') :
      !machine.known || !probe.connected || !isKnown(machine.notJoined) ?
                unknown('not judged while the probe is silent') :
                well('all groups without signal are joined on the captured interface');
  return [
    ['Joined', joined, 'on the interface that the probe captures'],
    [
      'Joined twice',
      machine.doubled   ? note(visible(machine.doubled)) :
          machine.known ? well('none') :
                          unknown(),
      'none: it is sent for nobody'
    ],
    [
      'Joined again',
      machine.rejoins ? note(`${count(machine.rejoinedGroups)} groups, ${count(machine.rejoins)} times`) :
                        well('never'),
      'never, but after a change of routes'
    ],
  ];
}

function ofMeter({meter}, now) {
  if (!meter || (!meter.connected && !meter.connections && !meter.problem))
    return [
      ['Meter', note('none: what it measures is not known, all else is'), 'connected where it is installed']
    ];
  const {capture, joins} = meter;
  const connected = !meter.connected ? wrong(`not connected: ${meter.problem ?? 'it does not run'}`) :
      meter.silent ? wrong('connected, but it reports nothing') :
                     well(`connected since ${time(parseTime(meter.since), now)}`);
  const rest = !meter.connected ? [] : [
    [
      'Captures', capture.problem ? wrong(capture.problem) : well(visible(capture.interface ?? 'yes')),
      'the same interface as the probe'
    ],
    [
      'Loses frames',
      capture.disturbed ? wrong('at this moment: losses may be this machine\'s') :
          capture.kernelDrops ?
                          note(`${count(capture.kernelDrops)} since it was started, none at this moment`) :
                          well('none'),
      'none'
    ],
    [
      'Reports',
      meter.reported < meter.groups ? note(`${count(meter.reported)} of ${count(meter.groups)} groups`) :
                                      well(`${count(meter.groups)} groups`),
      'all groups that it is told to watch'
    ],
    [
      'Lost reports',
      noneIsWell(
          meter.secondsLost + meter.reportsDropped,
          `${count(meter.secondsLost)} seconds, ${count(meter.reportsDropped)} reports`, note),
      'none'
    ],
    [
      'Joins',
      joins.problem ? wrong(joins.problem) : well(`${count(joins.joined)} for a source of their own`),
      'none fails'
    ],
  ];
  return [['Meter', connected, 'connected'], ...rest];
}

function ofPictures({pictures}, now) {
  if (!pictures || (!pictures.connected && !pictures.version))
    return [[
      'Pictures', note('none: frozen, black and silent channels are not found'),
      'taken where kestor-picture is installed'
    ]];
  const connected = !pictures.connected ?
      wrong(`none are taken: ${pictures.problem ?? 'kestor-picture does not run'}`) :
      pictures.silent ? wrong('connected, but nothing comes') :
      !pictures.meter ? wrong('connected, but no meter gives it packets') :
                        well(`taken since ${time(parseTime(pictures.since), now)}`);
  if (!pictures.connected) return [['Pictures', connected, 'taken']];
  const pace = pictures.intervalSeconds;
  const left = pictures.leftOut.map(
      ({group, until, why}) => `${visible(group)} until ${time(parseTime(until), now)}: ${visible(why)}`);
  return [
    ['Pictures', connected, 'taken'],
    [
      'Pace', isKnown(pace) ? well(`each channel every ${duration(pace * 1000)}`) : unknown(),
      'every 10 s, later with many channels'
    ],
    ['Decoders killed', noneIsWell(pictures.workersKilled, undefined, note), 'none'],
    ['Left out', left.length ? note(left.join('; ')) : well('no channel'), 'no channel'],
  ];
}

function ofDeliveries({delivery, influx}, now) {
  const rows = delivery.map((one) => {
    const owed = one.owed ? `, ${count(one.owed)} pending` : '';
    const since = one.failingSince ? ` since ${time(parseTime(one.failingSince), now)}` : '';
    return [
      `Webhook ${visible(one.name)}`,
      one.failingSince ? wrong(`fails${since}: ${one.lastProblem ?? 'no answer'}${owed}`) :
          one.dropped ? note(`${count(one.dropped)} notifications were dropped${owed}`) :
                        well(`${count(one.delivered)} notifications were taken${owed}`),
      'takes each message at once'
    ];
  });
  if (!rows.length)
    rows.push([
      'Webhooks', note('none is configured: this station tells nobody by itself'),
      'at least one, or Prometheus'
    ]);
  if (influx.written || influx.failed || influx.lastProblem)
    rows.push([
      'InfluxDB', influx.lastProblem ? wrong(influx.lastProblem) : well(`${count(influx.written)} points`),
      'takes each second'
    ]);
  return rows;
}

function ofDisk({store, history}) {
  return [
    [
      'Events',
      store.failing ?
          wrong(`cannot be written, ${count(store.waiting)} wait: is the disk full or read-only?`) :
          well(`written, ${quantity(store.bytes, 'byte')}`),
      'written within a second'
    ],
    ['Lost events', noneIsWell(store.dropped), 'none'],
    [
      'History',
      history.lastProblem ?
          wrong(history.lastProblem) :
          well(history.bytes ? `written, ${quantity(history.bytes, 'byte')}` : 'nothing to write yet'),
      'written every 10 min'
    ],
  ];
}

function ofStation({version, started, notes, meter}, use, now, processor) {
  const others = meter?.connected && meter.version && meter.version !== version;
  return [
    [
      'Versions',
      others ?
          note(`station ${visible(version)}, meter ${visible(meter.version)}: install the same`) :
          well(`station ${visible(version)}${meter?.version ? `, meter ${visible(meter.version)}` : ''}`),
      'the same'
    ],
    ['Runs', well(`for ${roughly(now - parseTime(started))}`), 'since the last upgrade or boot'],
    [
      'Configuration', notes.length ? note(`${count(notes.length)} notes, below`) : well('no notes'),
      'no notes'
    ],
    ['Memory', well(quantity(use.residentBytes, 'byte')), 'does not grow for days'],
    [
      'Processor',
      isKnown(processor) ? (processor > 0.8 ? wrong : well)(`${Math.round(processor * 100)} % of one`) :
                           unknown('measured in 5 s'),
      'well below all of one'
    ],
    ['Log', noneIsWell(use.logDropped, `${count(use.logDropped)} lines were lost`, note), 'no line lost'],
    [
      'Clients',
      noneIsWell(
          use.server.refused + use.server.answersRefused,
          `${count(use.server.refused + use.server.answersRefused)} were refused`, note),
      'none is refused'
    ],
  ];
}

function ofPage(store) {
  const ahead = Math.round(store.clockAhead / 1000);
  return [
    [
      'Event stream',
      store.connection.live ? well('live') : wrong('does not come: a proxy in between may hold it back'),
      'live'
    ],
    [
      'Clocks',
      Math.abs(store.clockAhead) > kMostAheadMs ?
          note(`the station's is ${duration(Math.abs(ahead) * 1000)} ${
              ahead > 0 ? 'ahead of' : 'behind'} this browser's`) :
          well('the station\'s and this browser\'s agree'),
      'agree within some seconds'
    ],
  ];
}

export class Watcher {
  constructor(store) {
    this.store = store;
    this.rows = new Map();  // part and what -> nodes
    this.summary = el('p', {class: 'big', role: 'status', text: 'Asking the station …'});
    this.parts = new Map();
    this.list = el('div', {class: 'watcher'});
    this.node = el('section', {class: 'panel'}, this.summary, this.list);
  }

  update(status, use) {
    const now = this.store.now();
    const processor = this.processor(use.cpuSeconds);
    const parts = [
      ['Probe', ofProbe(status, now)], ['Capture and card', ofCard(status)],
      ['Memberships', ofMemberships(status)], ['Meter', ofMeter(status, now)],
      ['Pictures', ofPictures(status, now)], ['Deliveries', ofDeliveries(use, now)], ['Disk', ofDisk(use)],
      ['Station', ofStation(status, use, now, processor)], ['This page', ofPage(this.store)]
    ];
    const totals = {wrong: 0, unknown: 0, note: 0, well: 0};
    const shown = new Set();
    for (const [part, rows] of parts) {
      for (const [what, [verdict, text], normal] of rows) {
        totals[verdict]++;
        shown.add(this.show(part, what, verdict, text, normal));
      }
    }
    for (const [key, {node}] of this.rows) {
      if (shown.has(key)) continue;
      node.remove();
      this.rows.delete(key);
    }
    const said = [['wrong', 'wrong'], ['unknown', 'not known'], ['note', 'to note']]
                     .filter(([name]) => totals[name])
                     .map(([name, text]) => `${count(totals[name])} ${text}`);
    setText(this.summary, said.length ? said.join(', ') : 'All is well.');
  }

  // The part of one processor that the station used since the last look; null at first.
  processor(seconds) {
    const at = performance.now();
    const {last} = this;
    this.last = {at, seconds};
    return last && at > last.at ? (seconds - last.seconds) * 1000 / (at - last.at) : null;
  }

  show(part, what, verdict, text, normal) {
    const key = `${part}\n${what}`;
    if (!this.rows.has(key)) {
      const mark = el('span', {class: 'sign', 'aria-hidden': 'true'});
      const word = el('span', {class: 'unseen'});
      const value = el('bdi');
      const node =
          el('tr', {}, el('td', {class: 'lamp'}, mark, word), el('th', {scope: 'row', text: what}),
             el('td', {class: 'text-cell'}, value), el('td', {class: 'muted wide-only', text: normal}));
      this.rows.set(key, {node, mark, word, value});
      this.bodyOf(part).append(node);
    }
    const {node, mark, word, value} = this.rows.get(key);
    const [look, name] = kLooks[verdict];
    setClass(node, `is-${look}`);
    setText(mark, sign(look));
    setText(word, name);
    setText(value, text);
    return key;
  }

  bodyOf(part) {
    if (!this.parts.has(part)) {
      const body = el('tbody');
      this.parts.set(part, body);
      this.list.append(
          el('section', {'aria-label': part}, el('h2', {text: part}),
             el('table', {},
                el('thead', {class: 'unseen'},
                   el('tr', {},
                      ...['State', 'What', 'Is', 'Normal'].map((text) => el('th', {scope: 'col', text})))),
                body)));
    }
    return this.parts.get(part);
  }
}
