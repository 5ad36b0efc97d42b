// An alarm in full, where it stands: its sentence, how bad it is, what it means and what to look at first.
import {levelText, sinceText, titleOf, typeOf, valueText} from './alarmWords.js';
import {askAcknowledgement} from './dialog.js';
import {button, el, setText} from './dom.js';
import {visible} from './format.js';
import {momentNode} from './moments.js';
import {sign} from './state.js';

const kGroupPlace = /\bGROUP\b/g;  // in what to look at, where an alarm has its channel's group

// What to look at; also where no alarm of the type is raised.
export function lookNode(type, group = null) {
  const text = (line) => visible(group ? line.replace(kGroupPlace, group) : line);
  return el(
      'div', {class: 'look'}, el('h4', {text: 'Look first'}),
      el('ol', {}, ...type.look.map((line) => el('li', {text: text(line)}))));
}

function raisedText(level) {
  if (!level) return '';
  return /^\d/.test(level) ? `raised by ${level}` : `raised ${level}`;
}

export class AlarmDetail {
  constructor({store, api}, alarm) {
    this.store = store;
    this.api = api;
    this.id = alarm.id;
    const type = typeOf(store, alarm);
    this.state = el('span', {class: 'muted'});
    this.sentence = el('bdi');
    this.measured = el('p', {class: 'note'});
    this.told = el('p', {class: 'note'});
    this.acknowledge = button('', () => askAcknowledgement(api, [this.alarm]), {class: 'small'});
    this.node =
        el('section', {class: `alarm-detail is-${alarm.severity}`},
           el('div', {class: 'title-line'},
              el('span', {class: 'sign', 'aria-hidden': 'true', text: sign(alarm.severity)}),
              el('h3', {text: titleOf(store, alarm)}), this.state, this.acknowledge),
           el('div', {class: 'alarm-said'}, el('p', {}, this.sentence), this.measured, this.told,
              type ? el('p', {text: visible(type.meaning)}) : null,
              el('p', {},
                 el('a', {href: `#help/${encodeURIComponent(alarm.alarm)}`, text: 'About this alarm'}))),
           type ? lookNode(type, alarm.group) : null);
    this.update(alarm);
  }

  update(alarm) {
    const {store} = this;
    this.alarm = alarm;
    setText(this.state, `${visible(alarm.severity)} · ${sinceText(store, alarm).split(', ').at(-1)}`);
    setText(this.sentence, visible(alarm.text));
    const value = valueText(store, alarm);
    const level = levelText(store, alarm);
    const parts = [
      value ? `Now ${value}` : '', raisedText(level),
      value ? `worst ${valueText(store, alarm, alarm.peak)}` : '',
      alarm.source && alarm.group ? `by the ${visible(alarm.source)}` : ''
    ];
    setText(this.measured, parts.filter(Boolean).join(' · '));
    this.measured.hidden = !parts.some(Boolean);
    this.showTold(alarm.acknowledged);
    setText(this.acknowledge, alarm.acknowledged ? 'Change' : 'Acknowledge');
    this.acknowledge.hidden = !this.api.mayChange;
  }

  showTold(told) {
    this.told.hidden = !told;
    if (!told || this.toldTime === told.time) return;
    this.toldTime = told.time;
    this.told.replaceChildren(
        'Acknowledged ', momentNode(told.time, this.store.now()), told.by ? ` by ${visible(told.by)}` : '',
        told.remark ? el('bdi', {text: `: ${visible(told.remark)}`}) : '');
  }
}
