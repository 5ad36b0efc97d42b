// What was lost, and whether the network, what comes before it, or this machine lost it.
import {el, setText} from './dom.js';
import {FactList} from './facts.js';
import {count, isKnown, quantity, time} from './format.js';
import {Histogram} from './histogram.js';

const kBases = {
  rtp: 'by RTP',
  clock: 'by the clock',
  counter: 'by continuity counters, at least'
};
const kContinuity = '1.4';
const kNearS = 3;

export class Loss {
  constructor() {
    this.verdict = el('p', {class: 'verdict', role: 'status'});
    this.facts = new FactList();
    this.histogram = new Histogram();
    this.note = el('p', {class: 'note', text: 'Time between datagrams, last minute'});
    this.plots = el('div');
    this.node =
        el('div', {class: 'view'}, this.verdict, this.facts.node, this.plots,
           el('div', {}, this.note, this.histogram.node));
    this.update(null);
  }

  close() {
    this.histogram.close();
  }

  update(report) {
    setText(this.verdict, report ? verdictOf(report) : 'Unknown.');
    this.histogram.update(report?.network?.histogram ?? null);
    if (!report) {
      this.facts.forget();
      return;
    }
    const {facts} = this;
    const {lost, repeated} = report.packets;
    const {flow, network} = report;
    const number = (value) => count(value);
    const ms = (value) => quantity(value, 'ms');
    facts.set(
        'Packets lost', isKnown(lost.packets) ? `${count(lost.packets)} ${kBases[lost.basis] ?? ''}` : '–');
    facts.set('Runs of loss', number(lost.events));
    facts.set('Longest run', longestText(lost));
    facts.set(
        'Counter, clock, RTP', [lost.byCounter, lost.byClock, lost.byRtp].map(number).join(', '),
        'Packets lost as each of them tells it; the clock tells more at a constant bit rate, RTP in an RTP flow');
    facts.set('Sent twice', number(repeated), 'Packets that are repeated: legal, and no loss');
    facts.set('Delay factor', withHighest(network?.mdi.delayFactorMs, network?.mdi.delayFactorHighestMs, ms));
    facts.set(
        'Media loss rate',
        withHighest(network?.mdi.lossRate, network?.mdi.lossRateHighest, (value) => `${count(value)} /s`),
        'Packets lost or out of order each second, RFC 4445');
    facts.set(
        'Between datagrams',
        isKnown(network?.interArrivalMs.mean) ?
            `${ms(network.interArrivalMs.mean)}, up to ${ms(network.interArrivalMs.highest)}` :
            '–',
        'Mean and highest of the last second');
    const rtp = network?.rtp;
    const terms = {
      'RTP lost':
          rtp && `${count(rtp.lost)} in ${count(rtp.lossEvents)} ${rtp.lossEvents === 1 ? 'run' : 'runs'}`,
      'RTP longest run': rtp && number(rtp.longestBurst),
      'RTP out of order': rtp && number(rtp.outOfOrder),
      'RTP repeated': rtp && number(rtp.repeated),
      'RTP jitter': rtp && ms(rtp.jitterMs),
      'RTP senders seen': rtp && number(rtp.ssrcChanges + 1)
    };
    for (const [term, text] of Object.entries(terms)) {
      if (text)
        facts.set(term, text);
      else
        facts.drop(term);
    }
    facts.set(
        'FEC datagrams',
        flow?.fec ? number(flow.fec) :
            flow  ? 'none' :
                    '–',
        'SMPTE 2022-1 beside the flow');
    facts.set(
        'Of other flows', number(flow?.otherFlows),
        'Datagrams to the group from elsewhere, which are not measured');
    facts.set('Malformed', number(flow?.malformed));
  }
}

function withHighest(value, highest, text) {
  if (!isKnown(value)) return '–';
  return isKnown(highest) ? `${text(value)}, highest ${text(highest)}` : text(value);
}

function longestText({events, longest, longestMs}) {
  if (!events) return 'none';
  const packets = `${count(longest)} ${longest === 1 ? 'packet' : 'packets'}`;
  return isKnown(longestMs) ? `${packets}, ${quantity(longestMs, 'ms')}` : packets;
}

// In a sentence or two, and no more certain than the figures are.
function verdictOf(report) {
  const {packets: {lost}, network, live, checks, begin} = report;
  if (!isKnown(lost.packets)) return 'Unknown.';
  const start = Date.parse(begin ?? '');
  const at = (seconds) =>
      (Number.isNaN(start) || !isKnown(seconds) ? '' : time(new Date(start + 1000 * seconds)));
  const {count: errors = 0, last} = checks.find(({id}) => id === kContinuity) ?? {};
  if (!lost.packets && !errors) {
    const since = at(0) && ` since ${at(0)}`;
    const order = network?.rtp?.outOfOrder ? '; RTP datagrams came out of order and were put in order' : '';
    return `Nothing is lost${since}${order}.`;
  }
  const disturbed = live?.lastDisturbed;
  if (isKnown(disturbed) && isKnown(last) && last >= disturbed - 1 && last <= disturbed + kNearS)
    return 'This machine dropped packets when the last ones were missed: look at Probe, Meter first.';
  const when = errors && at(last) ? ` The last error was at ${at(last)}.` : '';
  return (network?.rtp ? verdictByRtp(lost) : verdictOfPlain(lost, report.flow)) + when;
}

function verdictByRtp({byRtp, byCounter}) {
  if (!byRtp)
    return 'RTP misses no datagram, but counters have gaps: packets are missing before the RTP sender. Look upstream.';
  if (byCounter > byRtp)
    return 'Datagrams are lost between the RTP sender and here, and packets are missing in those that came: ' +
        'look at the network, and at what feeds the sender.';
  return 'The network lost datagrams between the RTP sender and here.';
}

function verdictOfPlain({basis, packets, longest, byCounter}, flow) {
  const whole = flow?.packetsPerDatagram;
  // The clock tells of null packets too, so that runs have their true lengths.
  if (basis === 'clock' && whole > 1) {
    if (packets % whole === 0 && longest % whole === 0)
      return `What is missing are whole datagrams of ${whole} packets: that points to the network.`;
    if (longest < whole)
      return `Less than a datagram of ${
          whole} packets is missing each time, and a network loses whole ones: look upstream.`;
  }
  return `At least ${
             count(Math.max(packets, byCounter))} packets are missing. Plain UDP has no sequence numbers: ` +
      'the stream does not tell the network from what comes before it. Compare with a probe nearer to the sender.';
}
