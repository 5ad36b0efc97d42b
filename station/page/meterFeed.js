// What the meter says of one channel: asked for each second while there is a meter, and while somebody looks.
import {timeOf} from './series.js';

const kLookMs = 5_000;   // between questions whether there is a meter
const kHoldsMs = 3_500;  // a report, when no newer one comes

export class MeterFeed {
  // `listener`: {report(report, before), silent(reason)}. `before` is the report before of the same
  // beginning, else null. silent() is told when reports end, and at each turn until one comes again; not
  // before the first.
  constructor(api, group, listener) {
    this.api = api;
    this.group = group;
    this.listener = listener;
    this.last = null;  // the newest report
    this.there = false;
    this.looked = -Infinity;
    this.taken = 0;
    this.isSilent = false;
  }

  close() {
    this.closed = true;
  }

  // Why no meter is connected that was, before its first report here, for a note; '' where there was none.
  get gone() {
    const {status} = this;
    if (this.last || !status || status.connected || !status.connections) return '';
    return status.problem ?? 'is kestor-meter running?';
  }

  // Once a second.
  async turn() {
    if (this.asking || document.hidden || this.closed) return;
    this.asking = true;
    try {
      await this.ask();
    } finally {
      this.asking = false;
    }
    if (this.closed || !this.last || performance.now() - this.taken < kHoldsMs) return;
    this.isSilent = true;
    this.listener.silent(this.reason ?? 'The station does not answer.');
  }

  async ask() {
    let report;
    try {
      if (!this.there && !await this.look()) return;
      report = await this.api.get(`channels/${encodeURIComponent(this.group)}/meter`);
    } catch (error) {
      if (!error.status) return;  // no answer: what there is holds for a moment
      this.there = false;         // refused: there is none, or none of this channel yet
      this.reason = error.message;
      if (!this.last || this.closed) return;
      this.taken = -Infinity;
      return;
    }
    if (!this.closed) this.take(report);
  }

  // Whether a meter is there that could be asked: what is refused would be told to whoever watches the
  // browser.
  async look() {
    if (performance.now() - this.looked < kLookMs) return false;
    this.looked = performance.now();
    const {meter} = await this.api.get('status');
    this.status = meter;
    this.there = Boolean(meter?.connected && !meter.silent && meter.reported);
    if (!this.there)
      this.reason = meter?.problem ??
          (meter?.connected ? 'kestor-meter is connected and reports nothing.' : 'No meter is connected.');
    return this.there;
  }

  take(report) {
    const {last} = this;
    const goesOn = last && last.begin === report.begin && last.seconds <= report.seconds;
    if (goesOn && last.seconds === report.seconds && !this.isSilent) return;
    this.taken = performance.now();
    this.isSilent = false;
    this.last = report;
    this.listener.report(report, goesOn ? last : null, timeOf(report) ?? new Date());
  }
}
