// A field in which a channel is found by a part of its name or by its group.
import {el} from './dom.js';
import {visible} from './format.js';

const kSuggestions = 50;
let pickers = 0;

export class ChannelPicker {
  // `group`: what it begins with.
  constructor(store, text = '') {
    this.store = store;
    this.list = el('datalist', {id: `channels${++pickers}`});
    this.input = el('input', {
      type: 'search',
      list: this.list.id,
      placeholder: 'name or group',
      value: text,
      spellcheck: 'false',
      autocomplete: 'off'
    });
    this.input.addEventListener('input', () => this.suggest());
    this.input.addEventListener('focus', () => this.suggest());
  }

  suggest() {
    const typed = this.input.value.trim().toLowerCase();
    const found = [];
    for (const channel of this.store.channels.values()) {
      if (found.length >= kSuggestions) break;
      if (channel.searchText.includes(typed)) found.push(channel);
    }
    this.list.replaceChildren(
        ...found.map(({group, name}) => el('option', {value: group, text: visible(name)})));
  }

  // The one channel that is meant: by its group, its name, or a part that no other name has; null for none.
  channel() {
    const typed = this.input.value.trim();
    if (!typed) return null;
    const exact = this.store.channels.get(typed);
    if (exact) return exact;
    const wanted = typed.toLowerCase();
    const all = [...this.store.channels.values()];
    const named = all.filter(({info}) => info.name.trim().toLowerCase() === wanted);
    const found = named.length ?
        named :
        all.filter(({name, group}) => name.toLowerCase().includes(wanted) || group.includes(wanted));
    return found.length === 1 ? found[0] : null;
  }
}
