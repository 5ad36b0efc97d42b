// What new alarms do beside being shown: the announcer says them, title and icon tell how many and how bad,
// and where somebody asked for it there is a sound or a notification.
import {isQuiet, titleOf, worstOf} from './alarmWords.js';
import {ask} from './dialog.js';
import {el} from './dom.js';
import {nameText, visible} from './format.js';

const kKey = 'kestor-alerts';
const kProduct = 'kestor';
const kMostSaid = 3;
const kLoud = 2;           // severities, worst first, that the announcer says
const kToneMs = [0, 220];  // begins of the sound's two tones
const kToneHz = [880, 660];
const kOnceMs = 1_500;  // other tabs of this browser make no sound meanwhile

export class Alerts {
  constructor({store, announce}) {
    this.store = store;
    this.announce = announce;
    this.known = null;  // IDs of alarms that were told; null before any were
    this.chosen = kept();
    this.icon = document.querySelector('link[rel=icon]');
    this.button = document.getElementById('alerts');
    this.button.addEventListener('click', () => this.choose());
    store.on('alarms', () => this.changed());
    store.on('meta', () => this.showTitle());
    this.showButton();
  }

  changed() {
    const {store} = this;
    const before = this.known;
    this.known = new Set(store.alarms.map(({id}) => id));
    this.showTitle();
    this.showIcon();
    if (!before || !store.meta) return;
    const fresh = store.alarms.filter(({id}) => !before.has(id));
    this.say(fresh);
    const loud = fresh.filter((alarm) => this.isAsked(alarm));
    if (!loud.length) return;
    if (this.chosen.sound) sound();
    if (this.chosen.notification) this.notify(loud);
  }

  nameOf({group, channel}) {
    return group ? nameText(channel, group) : 'probe';
  }

  text(alarm) {
    return `${titleOf(this.store, alarm)}, ${this.nameOf(alarm)}`;
  }

  say(fresh) {
    const said = fresh.filter(
        ({severity, shelved}) => !shelved && this.store.meta.severities.indexOf(severity) < kLoud);
    if (!said.length) return;
    const more = said.length > kMostSaid ? ` and ${said.length - kMostSaid} more` : '';
    this.announce(
        said.slice(0, kMostSaid).map((alarm) => `${alarm.severity}: ${this.text(alarm)}`).join('; ') + more);
  }

  // As bad as was asked for, not shelved, and not of a channel in maintenance.
  isAsked({severity, group, shelved}) {
    if (shelved) return false;
    const {severities} = this.store.meta;
    const most = severities.indexOf(this.chosen.severity);
    const channel = this.store.channels.get(group);
    if (channel && this.store.value(channel, 'maintenance')) return false;
    return most >= 0 && severities.indexOf(severity) <= most;
  }

  notify(loud) {
    if (!('Notification' in window) || Notification.permission !== 'granted') return;
    const worst = worstOf(this.store, loud);
    const more = loud.length > 1 ? ` and ${loud.length - 1} more` : '';
    const note = new Notification(`${worst.severity}: ${this.text(worst)}${more}`, {
      body: visible(worst.text),
      tag: `kestor-${worst.id}`,  // one, whatever the number of tabs
      icon: this.icon.href
    });
    note.addEventListener('click', () => {
      window.focus();
      location.hash = worst.group ? `#channel/${worst.group}` : '#events';
      note.close();
    });
  }

  showTitle() {
    const {store} = this;
    const open = store.alarms?.filter((alarm) => !isQuiet(alarm)).length;
    const name = visible(store.meta?.instance ?? '');
    const title = (open ? `(${open}) ` : '') + (name ? `${name} · ${kProduct}` : kProduct);
    if (document.title !== title) document.title = title;
    const place = document.getElementById('station');
    if (place.textContent !== name) place.textContent = name;
  }

  // The worst that nobody acknowledged.
  showIcon() {
    const worst = worstOf(this.store, this.store.alarms.filter((alarm) => !isQuiet(alarm)));
    const file = worst && kIcons.has(worst.severity) ? `icon-${worst.severity}.svg` : 'icon.svg';
    const href = new URL(`./${file}`, import.meta.url).href;
    if (this.icon.href !== href) this.icon.href = href;
  }

  showButton() {
    const {severity, sound: loud, notification} = this.chosen;
    const on = severity && (loud || notification);
    this.button.setAttribute('aria-pressed', String(Boolean(on)));
    this.button.title =
        on ? `New alarms, ${severity} or worse, are told` : 'Sound and notification for new alarms';
  }

  async choose() {
    const severities = this.store.meta?.severities ?? [];
    const severity = el(
        'select', {}, el('option', {value: '', text: 'none'}),
        ...severities.map((one, place) => el('option', {value: one, text: place ? `${one} or worse` : one})));
    severity.value = this.chosen.severity;
    const loud = el('input', {type: 'checkbox', checked: this.chosen.sound});
    const note = el('input', {type: 'checkbox', checked: this.chosen.notification});
    const mayNote = 'Notification' in window && window.isSecureContext;
    note.disabled = !mayNote;
    await ask({
      title: 'New alarms',
      text: 'Of channels in maintenance nothing is told. This browser keeps what you choose.',
      fields: {
        severity: {label: 'Alarms', input: severity},
        sound:
            {label: 'Sound', input: loud, hint: 'While the page is open. Some browsers want a click first.'},
        notification: {
          label: 'Notification',
          input: note,
          hint: mayNote ? '' : 'Browsers allow them over HTTPS and on this machine alone.'
        },
      },
      action: 'Keep',
      submit: (values) => this.take(values, mayNote),
    });
  }

  async take({severity, sound: loud, notification}, mayNote) {
    if (notification && mayNote && await Notification.requestPermission() !== 'granted')
      throw Object.assign(
          new Error('This browser does not allow them for this page.'), {field: 'notification'});
    this.chosen = {severity, sound: loud, notification: notification && mayNote};
    try {
      localStorage.setItem(kKey, JSON.stringify(this.chosen));
    } catch {
      // It holds for this tab.
    }
    if (loud) sound();
    this.showButton();
  }
}

const kIcons = new Set(['critical', 'major', 'minor', 'warning']);

function kept() {
  try {
    const {severity = '', sound: loud = false, notification = false} =
        JSON.parse(localStorage.getItem(kKey)) ?? {};
    return {severity: String(severity), sound: Boolean(loud), notification: Boolean(notification)};
  } catch {
    return {severity: '', sound: false, notification: false};
  }
}

let audio = null;
// Two short tones, in one tab of this browser.
function sound() {
  const play = async () => {
    try {
      audio ??= new AudioContext();
      await audio.resume();
      for (const [place, begin] of kToneMs.entries()) tone(audio.currentTime + begin / 1000, kToneHz[place]);
    } catch {
      // No sound in this browser, or none without a click.
    }
    await new Promise((resolve) => setTimeout(resolve, kOnceMs));
  };
  if (navigator.locks)
    navigator.locks.request('kestor-sound', {ifAvailable: true}, (lock) => (lock ? play() : null));
  else
    play();
}

function tone(begin, hertz) {
  const source = audio.createOscillator();
  const volume = audio.createGain();
  source.frequency.value = hertz;
  volume.gain.setValueAtTime(0.0001, begin);
  volume.gain.exponentialRampToValueAtTime(0.2, begin + 0.02);
  volume.gain.exponentialRampToValueAtTime(0.0001, begin + 0.2);
  source.connect(volume).connect(audio.destination);
  source.start(begin);
  source.stop(begin + 0.22);
}
