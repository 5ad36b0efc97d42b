// Adding, changing and removing channels, and importing playlists.
import {parseAddress} from './address.js';
import {ask, askToken, kNoChanges, showRefusal} from './dialog.js';
import {button, el, field, setText} from './dom.js';
import {keepingFocus} from './focus.js';
import {count, visible} from './format.js';
import {placeInOrder} from './placing.js';

const kRows = 100;
const kMostNotes = 200;
const kPlaylistBytes = 16 * 1024 * 1024;  // what the station takes
const kLabelsHint = 'name=value, one a line';

// A label a line: "site=north"; values may have commas. Throws with the field's name when one is none.
function parseLabels(text) {
  const labels = {};
  for (const part of text.split('\n').map((one) => one.trim()).filter(Boolean)) {
    const at = part.indexOf('=');
    if (at < 1)
      throw Object.assign(
          new Error(`"${part.slice(0, 40)}" is no label; write name=value, one a line.`), {field: 'labels'});
    const name = part.slice(0, at).trim();
    if (Object.hasOwn(labels, name))
      throw Object.assign(
          new Error(`The label "${name.slice(0, 40)}" is there twice; it has one value.`), {field: 'labels'});
    labels[name] = part.slice(at + 1).trim();
  }
  return labels;
}

// As parseAddress(), with the field's name in what it throws.
function addressOf(text) {
  try {
    return parseAddress(text);
  } catch (error) {
    throw Object.assign(error, {field: 'group'});
  }
}

function labelText(labels) {
  return Object.entries(labels).map(([name, value]) => `${name}=${value}`).join('\n');
}

export class EditView {
  constructor(root, context, parameters) {
    this.root = root;
    this.context = context;
    this.store = context.store;
    this.api = context.api;
    this.rows = kRows;
    this.made = new WeakMap();  // channel -> its row, and what that says
    this.opened = parameters.get('channel');
    this.build();
    this.ends = [
      this.store.on('channels', () => this.showChannels()), this.store.on('meta', () => this.fillProfiles()),
      this.api.onToken(() => this.showAccess())
    ];
    this.fillProfiles();
    this.showAccess();
  }

  close() {
    for (const end of this.ends) end();
  }

  build() {
    this.lockedText = el('p');
    this.unlock = button('Enter the token', () => askToken(this.api), {class: 'primary'});
    this.locked = el('div', {class: 'panel view'}, this.lockedText, el('div', {}, this.unlock));
    this.search = el('input', {
      type: 'search',
      placeholder: 'Search name, group, label',
      'aria-label': 'Search channels',
      value: this.opened ?? '',
      spellcheck: 'false'
    });
    this.search.addEventListener('input', () => {
      this.rows = kRows;
      this.showChannels();
    });
    this.total = el('span', {class: 'muted'});
    this.body = el('tbody');
    this.more = button('Show more', () => {
      this.rows += kRows;
      this.showChannels();
    });
    this.problem = el('p', {class: 'field-error', role: 'alert'});
    const head =
        el('tr', {},
           ...['Name', 'Group', 'Labels', 'Profile', 'From', ''].map(
               (text) => (text ? el('th', {scope: 'col', text}) : el('td'))));
    this.changes = el('div', {class: 'columns'}, this.makeAddForm(), this.makeImportForm());
    this.root.replaceChildren(
        el('div', {class: 'view'}, el('h1', {text: 'Edit channels'}), this.locked, this.changes,
           el('section', {class: 'panel'},
              el('div', {class: 'panel-head'}, el('h2', {text: 'Channels'}), this.total, this.search,
                 el('a', {href: this.api.url('export'), download: 'channels.m3u', text: 'Save as playlist'})),
              this.problem,
              el('div', {class: 'scroll', tabindex: '0', role: 'region', 'aria-label': 'Channels'},
                 el('table', {}, el('thead', {}, head), this.body)),
              el('p', {class: 'actions'}, this.more))));
  }

  // Whether something was typed that loading the page anew would lose.
  isUsed() {
    return [...this.changes.querySelectorAll('input, textarea')].some((input) => input.value !== '');
  }

  showAccess() {
    const refused = this.api.changes === 'refused';
    setText(this.lockedText, refused ? kNoChanges : 'Looking only: changes need the station\'s token.');
    this.unlock.parentNode.hidden = refused;
    this.locked.hidden = this.api.mayChange;
    this.changes.hidden = !this.api.mayChange;
    this.showChannels(true);
  }

  fillProfiles() {
    const profiles = this.store.meta?.profiles ?? [];
    this.addFields.profile.input.replaceChildren(
        ...profiles.map((profile) => el('option', {value: profile, text: visible(profile)})));
  }

  makeAddForm() {
    this.addFields = {
      group: field('Group', el('input', {
                     type: 'text',
                     placeholder: '239.1.1.1 or udp://@239.1.1.1:5000',
                     spellcheck: 'false',
                     autocomplete: 'off'
                   })),
      name: field('Name', el('input', {type: 'text', autocomplete: 'off'})),
      labels: field(
          'Labels', el('textarea', {rows: 2, placeholder: 'site=north', spellcheck: 'false'}), kLabelsHint),
      profile: field('Profile', el('select')),
    };
    const problem = el('p', {class: 'field-error wide', role: 'alert'});
    const done = el('p', {class: 'note wide', role: 'status'});
    const form =
        el('form', {class: 'form', novalidate: true},
           ...Object.values(this.addFields).map(({wrapper}) => wrapper), problem, done,
           el('p', {class: 'actions wide'}, el('button', {type: 'submit', class: 'primary', text: 'Add'})));
    // What came of the last one, until the next is begun.
    const forget = () => {
      setText(problem, '');
      setText(done, '');
      for (const one of Object.values(this.addFields)) one.fail();
    };
    form.addEventListener('input', forget);
    form.addEventListener('submit', async (event) => {
      event.preventDefault();
      forget();
      try {
        const group = await this.add();
        form.reset();
        setText(done, `${group} was added.`);
      } catch (error) {
        showRefusal(error, this.addFields, problem);
      }
    });
    return el(
        'section', {class: 'panel'}, el('div', {class: 'panel-head'}, el('h2', {text: 'Add a channel'})),
        form);
  }

  async add() {
    const {group, port, source} = addressOf(this.addFields.group.input.value);
    const name = this.addFields.name.input.value;
    const body = {labels: parseLabels(this.addFields.labels.input.value), enabled: true};
    if (name) body.name = name;
    const profile = this.addFields.profile.input.value;
    if (profile) body.profile = profile;
    if (port) body.port = port;
    if (source) body.source = source;
    if (this.store.channels.has(group))
      throw Object.assign(new Error('There is such a channel already: change it below.'), {field: 'group'});
    await this.api.put(`channels/${encodeURIComponent(group)}`, body);
    return group;
  }

  makeImportForm() {
    const text = field('Playlist', el('textarea', {
                         rows: 5,
                         spellcheck: 'false',
                         placeholder: '#EXTM3U\n#EXTINF:-1,News HD\nudp://@239.1.1.1:5000'
                       }));
    const file =
        field('or a file', el('input', {type: 'file', accept: '.m3u,.m3u8,.txt,audio/x-mpegurl,text/plain'}));
    const problem = el('p', {class: 'field-error wide', role: 'alert'});
    const result = el('div', {class: 'wide', role: 'status'});
    const go = el('button', {type: 'submit', class: 'primary', text: 'Import'});
    const form =
        el('form', {class: 'form', novalidate: true}, el('div', {class: 'wide'}, text.wrapper), file.wrapper,
           problem, result, el('p', {class: 'actions wide'}, go));
    form.addEventListener('submit', async (event) => {
      event.preventDefault();
      setText(problem, '');
      setText(result, '');
      for (const one of [text, file]) one.fail();
      const [chosen] = file.input.files;
      go.disabled = true;
      try {
        const bytes =
            chosen ? new Uint8Array(await chosen.arrayBuffer()) : new TextEncoder().encode(text.input.value);
        if (!bytes.length)
          throw Object.assign(new Error('Paste a playlist, or choose a file.'), {field: 'text'});
        await this.importAll(bytes, result);
        form.reset();
      } catch (error) {
        showRefusal(
            error.field === '' || error.needsToken ? error :
                                                     Object.assign(error, {field: chosen ? 'file' : 'text'}),
            {text, file}, problem);
      } finally {
        go.disabled = false;
      }
    });
    return el(
        'section', {class: 'panel'}, el('div', {class: 'panel-head'}, el('h2', {text: 'Import a playlist'})),
        form);
  }

  async importAll(bytes, result) {
    if (bytes.length > kPlaylistBytes)
      throw Object.assign(new Error('A playlist has at most 16 MiB.'), {field: 'text'});
    const sum = await this.api.importPlaylist(bytes);
    const shown =
        sum.notes.slice(0, kMostNotes).map((note) => el('li', {}, el('bdi', {text: visible(note)})));
    const rest = sum.notes.length - shown.length;
    result.replaceChildren(
        el('p', {
          text: `${count(sum.added)} added, ${count(sum.changed)} changed, ${count(sum.skipped)} skipped.`
        }),
        el('ul', {class: 'note outside'}, ...shown,
           rest > 0 ? el('li', {text: `and ${count(rest)} more`}) : null));
  }

  // Rows of what changed anew; never while one is being edited, so that nothing is lost under the hands.
  showChannels(always = false) {
    if (!this.store.loaded || (!always && this.body.querySelector('form'))) return;
    const words = this.search.value.toLowerCase().split(/\s+/).filter(Boolean);
    const list = [...this.store.channels.values()].filter(
        ({searchText}) => words.every((word) => searchText.includes(word)));
    list.sort((a, b) => a.nameRank - b.nameRank);
    setText(
        this.total,
        list.length === this.store.channels.size ?
            count(list.length) :
            `${count(list.length)} of ${count(this.store.channels.size)}`);
    keepingFocus(
        this.body,
        () => placeInOrder(this.body, list.slice(0, this.rows).map((channel) => this.rowOf(channel))),
        this.search);
    this.more.hidden = list.length <= this.rows;
  }

  // A row stays where nothing that it says changed: somebody may be about to press what is in it.
  rowOf(channel) {
    const {name, labelTexts, info: {profile, origin, enabled}} = channel;
    const key = JSON.stringify([name, labelTexts, profile, origin, enabled, this.api.mayChange]);
    if (this.made.get(channel)?.key !== key) this.made.set(channel, {key, node: this.makeRow(channel)});
    return this.made.get(channel).node;
  }

  makeRow(channel) {
    const {info} = channel;
    const {name} = channel;
    const actions = this.api.mayChange ?
        [
          button('Change', () => this.change(channel), {class: 'small', 'aria-label': `Change ${name}`}), ' ',
          button(
              info.enabled ? 'Disable' : 'Enable', () => this.put(channel, {enabled: !info.enabled}),
              {class: 'small', 'aria-label': `${info.enabled ? 'Disable' : 'Enable'} ${name}`}),
          ' ',
          button(
              'Remove', () => this.remove(channel), {class: 'small danger', 'aria-label': `Remove ${name}`})
        ] :
        [];
    return el(
        'tr', {class: info.enabled ? '' : 'muted', 'data-group': channel.group},
        el('th', {scope: 'row', class: 'text-cell'},
           el('a', {href: `#channel/${channel.group}`}, el('bdi', {text: name})),
           info.enabled ? null : ' (disabled)'),
        el('td', {text: channel.group}),
        el('td', {class: 'outside', text: visible(channel.labelTexts.join(', '))}),
        el('td', {text: visible(info.profile)}), el('td', {text: visible(info.origin)}),
        el('td', {class: 'nowrap'}, ...actions));
  }

  async put(channel, body) {
    setText(this.problem, '');
    try {
      await this.api.put(`channels/${channel.group}`, body);
    } catch (error) {
      showRefusal(error, {}, this.problem);
    }
  }

  // Asks for what /api/v1/meta calls a channel's attributes.
  change(channel) {
    const {info} = channel;
    const {meta} = this.store;
    const attributes = (meta?.attributes ?? []).map((one) => ({...one, ...kEditors[one.type]}));
    return ask({
      title: `Change ${channel.group}`,
      fields: Object.fromEntries(
          attributes.map(({name, label, choices, input, hint}) => [name, {
                           label: visible(label),
                           input: choices ? choice(meta[choices], info[name]) : input(info[name]),
                           hint
                         }])),
      action: 'Change',
      submit: async (values) => {
        const body = {};  // what was changed, and nothing that was only shown
        for (const {name, shown, read} of attributes)
          if (values[name] !== shown(info[name])) body[name] = read(values[name], name);
        if (Object.keys(body).length) await this.api.put(`channels/${channel.group}`, body);
      },
    });
  }

  remove(channel) {
    return ask({
      title: 'Remove the channel?',
      text: `${channel.name} (${
          channel.group}) is no longer watched, and its history is forgotten. Its events stay.`,
      action: 'Remove',
      danger: true,
      submit: () => this.api.remove(`channels/${channel.group}`),
    });
  }
}

function labelArea(labels) {
  const area = el('textarea', {rows: 3, spellcheck: 'false'});
  area.value = labelText(labels);
  return area;
}

function wholeNumber(text, field) {
  const trimmed = text.trim() || '0';
  if (!/^\d+$/.test(trimmed)) throw Object.assign(new Error('A whole number, or nothing.'), {field});
  return Number(trimmed);
}

function choice(list, value) {
  const select = el('select', {}, ...list.map((one) => el('option', {value: one, text: visible(one)})));
  select.value = value;
  return select;
}

// How each type of attribute is asked for: the input that has the value, what the input says then, and the
// value that is meant by what it says.
const kEditors = {
  text: {
    input: (value) => el('input', {type: 'text', value: value ?? '', autocomplete: 'off'}),
    shown: (value) => value ?? '',
    read: (text) => text,
  },
  labels: {input: labelArea, shown: labelText, read: parseLabels, hint: kLabelsHint},
  number: {
    input: (value) => el('input', {type: 'text', inputmode: 'numeric', value: value ?? ''}),
    shown: (value) => String(value ?? ''),
    read: wholeNumber,
  },
  boolean: {
    input: (value) => el('input', {type: 'checkbox', checked: Boolean(value)}),
    shown: Boolean,
    read: Boolean,
  },
};
