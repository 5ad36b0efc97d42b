// The newest picture of a channel: loaded when there is another one, with what alarms say of it.
import {titleOf} from './alarmWords.js';
import {pictureAddress} from './api.js';
import {el, setAttribute, setClass, setText} from './dom.js';
import {isKnown, roughly, time} from './format.js';

// Alarms that are about what is seen and heard, worst first; the first one that is raised is marked.
const kOfPictures = ['black', 'frozen', 'silent', 'loudness_high'];
const kOldMs = 120_000;  // from which on the age is marked

export class Picture {
  // Whoever makes one does so near the screen alone: what is set is loaded.
  constructor() {
    this.image = el('img', {alt: '', decoding: 'async', draggable: 'false', hidden: true});
    this.note = el('span', {class: 'picture-note'});
    this.mark = el('span', {class: 'picture-mark', hidden: true});
    this.age = el('span', {class: 'picture-age'});
    this.node = el('span', {class: 'picture'}, this.note, this.mark, this.age);
    this.image.addEventListener('load', () => {
      this.image.hidden = false;
    });
    this.image.addEventListener('error', () => {
      this.image.hidden = true;
    });
  }

  update(store, channel) {
    this.show(store, channel, store.value(channel, 'pictureTaken'), store.value(channel, 'pictureNote'));
  }

  // `taken`: when, as the station has it; `note`: why there is no newer one.
  show(store, {group}, taken, note) {
    if (this.group !== group) this.clear();
    this.group = group;
    if (isKnown(taken) && taken !== this.taken) {
      this.taken = taken;
      this.image.src = pictureAddress(group, taken);
      if (!this.image.parentNode) this.node.prepend(this.image);
    }
    if (!isKnown(taken) && this.taken) this.clear();
    setText(this.note, isKnown(note) ? note : this.taken ? '' : 'No picture yet');
    const raised = new Set(store.alarmsOf({group}).map(({alarm}) => alarm));
    const alarm = kOfPictures.find((one) => raised.has(one));
    setText(this.mark, alarm ? titleOf(store, {alarm}) : '');
    this.mark.hidden = !alarm;
    setClass(this.node, `picture${alarm ? ` is-${alarm}` : ''}`);
    const now = store.now();
    const when = this.taken ? new Date(this.taken) : null;
    const old = when && now - when > kOldMs;
    setText(this.age, old ? roughly(now - when) : '');
    setAttribute(this.image, 'title', when ? `Taken ${time(when, now)}` : null);
  }

  // Nothing of another channel stays.
  clear() {
    this.taken = null;
    this.group = null;
    this.image.hidden = true;
    this.image.removeAttribute('src');
    this.image.remove();
  }
}
