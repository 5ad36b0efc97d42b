// What identifies a channel, as terms and values.
import {FactList} from './facts.js';
import {isKnown, parseTime, quantity, time, visible} from './format.js';
import {hasSignal} from './state.js';
import {sizeText} from './streamTexts.js';

export class Identity extends FactList {
  // Nothing is known any more.
  forget() {
    super.forget('Group');
  }

  // `detail`: the channel as the API describes it; `report`: the meter's, null without one.
  update(detail, report, store) {
    const {identity} = detail;
    const known = (value, unit = '') => (isKnown(value) ? quantity(value, unit) : '–');
    const port = (value) => (isKnown(value) ? String(value) : '–');
    this.set(
        'Group', identity.destinationPort ? `${detail.group}:${identity.destinationPort}` : detail.group);
    this.showRate(detail, report, store);
    this.showService(report);
    const listed = identity.listedSource && identity.listedSource !== identity.source ?
        ` (listed: ${visible(identity.listedSource)})` :
        '';
    const source = identity.source ? `${identity.source}:${port(identity.sourcePort)}` : '–';
    this.set('Source', source + listed);
    this.set('TTL', port(identity.ttl));
    this.set('DSCP, ECN', `${port(identity.dscp)}, ${port(identity.ecn)}`);
    this.set('Join latency', known(identity.joinLatencyMs, 'ms'));
    if (detail.note || this.has('Joined'))
      this.set('Joined', detail.note ? `no: ${visible(detail.note)}` : 'yes');
    this.set('Last packets', detail.lastSeen ? time(parseTime(detail.lastSeen), store.now()) : 'never');
    this.set('Profile', visible(detail.profile));
    this.set('Comes from', visible(detail.origin));
    if (isKnown(detail.number)) this.set('Number', String(detail.number));
    if (detail.logo) this.set('Logo', visible(detail.logo));
  }

  // The meter's where there is one.
  showRate(detail, report, store) {
    const signal = hasSignal(detail, detail.alarms);
    const unit = store.unit('bitRate');
    const rate = report?.bitrate ?? {};
    const text = quantity(signal ? (report ? rate.bps : detail.bitRate) : null, unit);
    const kind = signal && isKnown(rate.constant) ? (rate.constant ? ', constant' : ', varies') : '';
    const span = isKnown(rate.lowest) ?
        `Last minute: ${quantity(rate.lowest, unit)} to ${quantity(rate.highest, unit)}` :
        null;
    this.set('Bit rate', text + kind, span);
  }

  // Only where a meter is, or was.
  showService(report) {
    if (!report && !this.has('Service')) return;
    const names =
        report?.services.map(({name, program}) => (name ? visible(name) : `program ${program}`)) ?? [];
    this.set(
        'Service',
        names.length > 3 ? `${names.slice(0, 3).join(', ')} and ${names.length - 3} more` :
                           names.join(', ') || '–');
    const streams = report?.services.flatMap((service) => service.streams) ?? [];
    const video = streams.find(({video: picture}) => picture);
    this.set(
        'Video',
        video ? [sizeText(video.video), video.codec && visible(video.codec)].filter(Boolean).join(', ') :
                '–');
    const {flow} = report ?? {};
    const kinds = {rtp: 'RTP', udp: 'UDP'};
    this.set(
        'Encapsulation',
        flow?.encapsulation ?
            `${kinds[flow.encapsulation]}, ${flow.packetsPerDatagram ?? '–'} packets a datagram` :
            '–');
  }
}
