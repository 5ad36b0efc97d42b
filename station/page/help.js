// What each alarm means and what to look at first, by the station's own table.
import {lookNode} from './alarmDetail.js';
import {el} from './dom.js';
import {quantity, visible} from './format.js';
import {sign} from './state.js';

export class HelpView {
  // `name`: of the type that is asked for, or empty.
  constructor(root, {store}, name) {
    this.store = store;
    this.name = name;
    this.list = el('div', {class: 'view'}, el('p', {class: 'hint', text: 'Asking the station …'}));
    const search =
        el('input', {type: 'search', placeholder: 'Search titles and texts', 'aria-label': 'Search alarms'});
    search.addEventListener('input', () => this.search(search.value));
    root.replaceChildren(el(
        'div', {class: 'view'}, el('h1', {text: 'Alarms and what to look at'}), el('p', {
          class: 'muted',
          text:
              'Limits are those of the profile "default" as it comes; a channel\'s own profile may have others. ' +
              'The manual has more: docs/station.md on alarms and their rules, docs/runbooks.md on what ' +
              'Prometheus reports.'
        }),
        el('div', {class: 'controls'}, search), this.list));
    this.end = store.on('meta', () => this.show());
    this.show();
  }

  close() {
    this.end();
  }

  show() {
    const {meta} = this.store;
    if (!meta) return;
    this.parts = meta.alarmTypes.map((type) => this.part(type));
    this.list.replaceChildren(...this.parts);
    this.parts.find((part) => part.dataset.name === this.name)?.scrollIntoView();
  }

  part(type) {
    const {severity, enabled} = type.defaults;
    return el(
        'section',
        {class: `panel is-${severity}${type.name === this.name ? ' past' : ''}`, 'data-name': type.name},
        el('div', {class: 'title-line'},
           el('span', {class: 'sign', 'aria-hidden': 'true', text: sign(severity)}),
           el('h2', {text: visible(type.title)}), el('span', {class: 'badge', text: type.name}),
           el('span',
              {class: 'muted', text: enabled ? severity : `${severity}, off unless a profile has it`})),
        el('div', {class: 'alarm-detail'},
           el('div', {class: 'alarm-said'}, el('p', {text: visible(type.meaning)}),
              el('p', {class: 'note', text: rules(type)})),
           lookNode(type)));
  }

  search(text) {
    const words = text.toLowerCase().split(/\s+/).filter(Boolean);
    for (const part of this.parts ?? []) {
      const content = part.textContent.toLowerCase();
      part.hidden = words.some((word) => !content.includes(word));
    }
  }
}

// When it is raised and cleared, as it comes.
function rules({kind, unit, defaults}) {
  const {
    raise_level: raise,
    clear_level: clear,
    count,
    error_seconds: seconds,
    window_s: window,
    raise_delay_s: delay,
    clear_delay_s: clearDelay
  } = defaults;
  const parts = [];
  if (kind === 'high' || kind === 'low')
    parts.push(`raised ${kind === 'high' ? 'above' : 'below'} ${quantity(raise, unit)}, cleared at ${
        quantity(clear, unit)}`);
  if (kind === 'counter') {
    const ways = [
      count ? `${count} within ${window} s` : '',
      seconds ? `${seconds} seconds with one within ${window} s` : ''
    ];
    parts.push(`raised by ${ways.filter(Boolean).join(', or ')}`);
  }
  if (kind === 'absence') parts.push(`raised when none came for ${window} s`);
  if (delay) parts.push(`after ${delay} s`);
  if (clearDelay) parts.push(`over after ${clearDelay} s`);
  const text = parts.join(' · ');
  return text ? text[0].toUpperCase() + text.slice(1) : 'It holds or not: there is no level.';
}
