// Dialogs: a form in a <dialog>, with what was refused shown at the field that is meant.
import {button, el, field, setText} from './dom.js';
import {giveBack} from './focus.js';
import {localInput, visible} from './format.js';
import {ChannelPicker} from './picker.js';
import {chosen} from './selection.js';
import {fromInput, zoneName} from './zone.js';

let dialogs = 0;

// Shows a form. `fields`: {name: {label, input, hint}}; submit(values) is called with the inputs' values by
// name, true or false for a tick, and throws an ApiError to keep the dialog open. Without an action there is
// something to read alone. Resolves to true when it went through, false when it was cancelled.
export function ask({title, text = '', fields = {}, action = '', danger = false, submit}) {
  return new Promise((resolve) => {
    const made = Object.entries(fields).map(
        ([name, {label, input, hint, more}]) => [name, field(label, input, hint, more)]);
    const problem = el('p', {class: 'field-error', role: 'alert'});
    const go =
        action ? el('button', {type: 'submit', class: danger ? 'danger' : 'primary', text: action}) : null;
    const heading = el('h2', {id: `dialog${++dialogs}`, text: title});
    const form =
        el('form', {method: 'dialog', novalidate: true}, heading, text ? el('p', {text}) : null,
           ...made.map(([, one]) => one.wrapper), problem,
           el('p', {class: 'actions'}, button(action ? 'Cancel' : 'Close', () => dialog.close()), go));
    const dialog = el('dialog', {'aria-labelledby': heading.id}, form);
    let done = false;
    form.addEventListener('submit', async (event) => {
      event.preventDefault();
      if (!go || go.disabled) return;
      go.disabled = true;
      setText(problem, '');
      for (const [, one] of made) one.fail();
      try {
        await submit(Object.fromEntries(
            made.map(([name, {input}]) => [name, input.type === 'checkbox' ? input.checked : input.value])));
        done = true;
        dialog.close();
      } catch (error) {
        showRefusal(error, Object.fromEntries(made), problem);
      } finally {
        go.disabled = false;
      }
    });
    const opener = document.activeElement;
    dialog.addEventListener('close', () => {
      dialog.remove();
      giveBack(opener);
      resolve(done);
    });
    document.body.append(dialog);
    dialog.showModal();
    form.querySelector('input, textarea, select')?.focus();
  });
}

// Puts what the station said at the field that it named, or into `problem` when no such field is there.
export function showRefusal(error, fieldsByName, problem) {
  if (error.needsToken)
    setText(problem, `${error.message} Enter the token by the button at the top right.`);
  else if (error.field && fieldsByName[error.field])
    fieldsByName[error.field].fail(error.message);
  else
    setText(problem, error.message);
}

export const kNoChanges =
    'This station takes no changes over the network. To allow them, write a token into a file and name it as ' +
    'token_file in station.toml. On the station\'s own machine kestorctl needs none.';

// Asks for the token. It stays in this tab's memory of the session, and goes nowhere but to the station.
// Resolves to whether there is one.
export function askToken(api, why = '') {
  if (api.changes === 'refused') return ask({title: 'Look only', text: kNoChanges});
  const input = el('input', {type: 'password', autocomplete: 'off', spellcheck: 'false'});
  return ask({
    title: 'Allow changes',
    text: `${why}The station takes changes from those who have its token. It is kept until this tab closes.`,
    fields: {token: {label: 'Token', input}},
    action: 'Allow',
    async submit({token}) {
      const trimmed = token.trim();
      if (!/^[\x21-\x7e]+$/.test(trimmed))
        throw refused('A token has printable ASCII characters and no spaces.');
      let accepted;
      try {
        accepted = await api.accepts(trimmed);
      } catch (error) {
        throw refused(error.message);
      }
      if (!accepted) throw refused('The station does not take this token.');
      api.token = trimmed;
    },
  });
}

function refused(text) {
  return Object.assign(new Error(text), {field: 'token'});
}

const kNotFound = 404;
const kByKey = 'kestor-by';

// Who changes something: asked once in a session.
export function byInput() {
  return el('input', {type: 'text', value: sessionStorage.getItem(kByKey) ?? '', autocomplete: 'name'});
}
export function rememberBy(by) {
  sessionStorage.setItem(kByKey, by);
}

// Acknowledges one alarm or several, or an incident, in one call.
export function askAcknowledgement(api, alarms, incident = null) {
  const title = incident ? `Acknowledge the incident: ${alarms.length} alarms` :
      alarms.length === 1 ? 'Acknowledge the alarm' :
                            `Acknowledge ${alarms.length} alarms`;
  return ask({
    title,
    fields: {
      by: {label: 'Who', input: byInput()},
      remark: {label: 'Remark', input: el('textarea', {rows: 3})},
    },
    action: 'Acknowledge',
    async submit({by, remark}) {
      rememberBy(by);
      for (const which of chosen(alarms, incident)) {
        try {
          await api.post('alarms/acknowledge', {...which, by, remark: oneLine(remark)});
        } catch (error) {
          // All of several may have cleared meanwhile.
          if (error.status !== kNotFound || alarms.length === 1) throw error;
        }
      }
    },
  });
}

// A remark is one line wherever it is shown.
export function oneLine(text) {
  return text.trim().replace(/\s*[\r\n\u2028\u2029]+\s*/g, ' ');
}

// Labels with their values that more than one channel has, as [name, value].
function sharedLabels(store) {
  const found = new Map();
  for (const {info} of store.channels.values()) {
    for (const label of Object.entries(info.labels)) {
      const text = label.join('=');
      found.set(text, found.has(text) ? label : null);
    }
  }
  return [...found].filter(([, label]) => label).sort().map(([, label]) => label);
}

// Sets a maintenance window for a channel, for those with a label, or for all by a tick of their own: nobody
// silences all of them by leaving something out. `group` is what the dialog begins with.
export function askMaintenance({api, store}, group = '') {
  const picker = new ChannelPicker(store, group);
  const labels = sharedLabels(store);
  const label =
      el('select', {}, el('option', {value: '', text: 'none'}),
         ...labels.map((one, place) => el('option', {value: String(place), text: visible(one.join('='))})));
  const all = el('input', {type: 'checkbox'});
  const choose = () => {
    picker.input.disabled = all.checked || label.value !== '';
    label.disabled = all.checked;
  };
  all.addEventListener('change', choose);
  label.addEventListener('change', choose);
  const now = new Date();
  const hour = new Date(now.getTime() + 3_600_000);
  return ask({
    title: 'Maintenance window',
    text: 'Alarms are recorded and shown, and nobody is told of them.',
    fields: {
      group: {label: 'Channel', input: picker.input, more: picker.list},
      ...(labels.length && {label: {label: 'Or all channels with the label', input: label}}),
      all: {label: 'All channels', input: all},
      from: {
        label: 'From',
        hint: `Times are ${zoneName(now)}.`,
        input: el('input', {type: 'datetime-local', value: localInput(now)})
      },
      until: {label: 'Until', input: el('input', {type: 'datetime-local', value: localInput(hour)})},
      by: {label: 'Who', input: byInput()},
      remark: {label: 'Remark', input: el('input', {type: 'text'})},
    },
    action: 'Set',
    async submit(values) {
      rememberBy(values.by);
      const body = {until: inUtc(values.until, 'until'), by: values.by, remark: oneLine(values.remark)};
      if (values.from) body.from = inUtc(values.from, 'from');
      if (!values.all && values.label)
        body.label = Object.fromEntries([labels[Number(values.label)]]);
      else if (!values.all)
        body.group = chosenGroup(picker);
      await api.post('maintenance', body);
    },
  });
}

function chosenGroup(picker) {
  const channel = picker.channel();
  if (channel) return channel.group;
  const text = picker.input.value.trim() ?
      'No channel, or more than one, is like that: choose from the list.' :
      'Choose a channel or a label, or tick "All channels".';
  throw Object.assign(new Error(text), {field: 'group'});
}

export function inUtc(text, fieldName) {
  const date = fromInput(text);
  if (!date) throw Object.assign(new Error('A date and a time are needed.'), {field: fieldName});
  return date.toISOString();
}
