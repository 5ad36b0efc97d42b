// Terms with their values.
import {el, setAttribute, setText} from './dom.js';

export class FactList {
  constructor() {
    this.values = new Map();
    this.node = el('dl', {class: 'facts'});
  }

  // `title` says more of the value.
  set(term, text, title = null) {
    let value = this.values.get(term);
    if (!value) {
      value = el('dd', {class: 'outside'});
      this.values.set(term, value);
      this.node.append(el('div', {}, el('dt', {text: term}), value));
    }
    setText(value, text);
    setAttribute(value, 'title', title);
    value.parentNode.hidden = false;
  }

  has(term) {
    return this.values.has(term);
  }

  // Nothing is known of them any more, but for those that are `kept`.
  forget(...kept) {
    for (const [term, value] of this.values)
      if (!kept.includes(term)) setText(value, '–');
  }

  // A term that does not apply.
  drop(term) {
    const value = this.values.get(term);
    if (value) value.parentNode.hidden = true;
  }
}
