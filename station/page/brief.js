// What a channel is by the meter, in short, for the wall: size and codec, and a sign for cues.
import {el, setAttribute, setClass, setText} from './dom.js';
import {parseTime, time, visible} from './format.js';

// Sign and words of the newest cue, by whether it leads out of the network.
const kCues = new Map([[true, ['▸', 'out']], [false, ['◂', 'back']], [null, ['▪', 'cue']]]);

// Nodes of one channel: `size` and `codec`, beside the rate, and `cue`.
export class Brief {
  constructor() {
    this.size = el('span');
    this.codec = el('span');
    this.format = el('span', {class: 'format'}, this.size, ' ', this.codec);
    this.cue = el('span', {class: 'cue'});
  }

  update(store, channel) {
    const {isMetered} = store;
    this.format.hidden = !isMetered;
    if (!isMetered) return;
    const size = store.measure(channel, 'resolution');
    const codec = store.measure(channel, 'codec');
    setText(this.size, size ? visible(size).replace('x', '×') : codec ? '' : '–');
    setText(this.codec, codec ? visible(codec) : '');
    this.showCue(parseTime(store.value(channel, 'lastCue')), store.value(channel, 'cueOut'), store.now());
  }

  showCue(at, out, now) {
    const [sign, word] = kCues.get(out ?? null);
    setText(this.cue, at ? `${sign} ${word}` : '');
    setClass(this.cue, out ? 'cue out' : 'cue');
    setAttribute(this.cue, 'title', at ? `Last cue at ${time(at, now)}` : null);
  }
}
