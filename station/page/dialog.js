// Dialogs: a form in a <dialog>, with what was refused shown at the field that is meant.
import {button, el, field} from './dom.js';
import {localInput} from './format.js';

// Shows a form. `fields`: {name: {label, input, hint}}; submit(values) is called with the inputs' values by
// name and throws an ApiError to keep the dialog open. Resolves to true when it went through, false when it
// was cancelled.
export function ask({title, text = '', fields = {}, action, danger = false, submit}) {
  return new Promise((resolve) => {
    const made =
        Object.entries(fields).map(([name, {label, input, hint}]) => [name, field(label, input, hint)]);
    const problem = el('p', {class: 'field-error', role: 'alert'});
    const go = el('button', {type: 'submit', class: danger ? 'danger' : 'primary', text: action});
    const heading = el('h2', {id: 'dialog-title', text: title});
    const form =
        el('form', {method: 'dialog', novalidate: true}, heading, text ? el('p', {text}) : null,
           ...made.map(([, one]) => one.wrapper), problem,
           el('p', {class: 'actions'}, button('Cancel', () => dialog.close()), go));
    const dialog = el('dialog', {'aria-labelledby': 'dialog-title'}, form);
    let done = false;
    form.addEventListener('submit', async (event) => {
      event.preventDefault();
      go.disabled = true;
      problem.textContent = '';
      for (const [, one] of made) one.fail();
      try {
        await submit(Object.fromEntries(made.map(([name, one]) => [name, one.input.value])));
        done = true;
        dialog.close();
      } catch (error) {
        showRefusal(error, Object.fromEntries(made), problem);
      } finally {
        go.disabled = false;
      }
    });
    dialog.addEventListener('close', () => {
      dialog.remove();
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
    problem.textContent = `${error.message} Enter the token by the button at the top right.`;
  else if (error.field && fieldsByName[error.field])
    fieldsByName[error.field].fail(error.message);
  else
    problem.textContent = error.message;
}

// Asks for the token, or drops it. It stays in this tab's memory of the session, and goes nowhere but to the
// station.
export async function askToken(api) {
  if (api.mayChange) {
    api.token = '';
    return;
  }
  const input = el('input', {type: 'password', autocomplete: 'off', spellcheck: 'false'});
  await ask({
    title: 'Allow changes',
    text: 'The station takes changes from those who have its token. It is kept until this tab closes.',
    fields: {token: {label: 'Token', input}},
    action: 'Allow',
    async submit({token}) {
      const trimmed = token.trim();
      if (!/^[\x21-\x7e]+$/.test(trimmed))
        throw refused('A token has printable ASCII characters and no spaces.');
      let accepted;
      try {
        accepted = await api.accepts(trimmed);
      } catch {
        throw refused('The station does not answer.');
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

// Acknowledges one alarm or several.
export function askAcknowledgement(api, alarms) {
  const title = alarms.length === 1 ? 'Acknowledge the alarm' : `Acknowledge ${alarms.length} alarms`;
  return ask({
    title,
    fields: {
      by: {label: 'Who', input: byInput()},
      remark: {label: 'Remark', input: el('textarea', {rows: 3})},
    },
    action: 'Acknowledge',
    async submit({by, remark}) {
      rememberBy(by);
      for (const alarm of alarms) {
        try {
          await api.post(`alarms/${alarm.id}/acknowledge`, {by, remark});
        } catch (error) {
          // One of several may have cleared meanwhile.
          if (error.status !== kNotFound || alarms.length === 1) throw error;
        }
      }
    },
  });
}

// Sets a maintenance window; `group` is what the dialog begins with, empty for all channels.
export function askMaintenance(api, group = '') {
  const now = new Date();
  const hour = new Date(now.getTime() + 3_600_000);
  return ask({
    title: 'Maintenance window',
    text: 'Alarms are recorded and shown, and nobody is told of them.',
    fields: {
      group: {label: 'Channel (group; empty for all)', input: el('input', {type: 'text', value: group})},
      from: {label: 'From', input: el('input', {type: 'datetime-local', value: localInput(now)})},
      until: {label: 'Until', input: el('input', {type: 'datetime-local', value: localInput(hour)})},
      by: {label: 'Who', input: byInput()},
      remark: {label: 'Remark', input: el('input', {type: 'text'})},
    },
    action: 'Set',
    async submit(values) {
      rememberBy(values.by);
      const body = {until: inUtc(values.until, 'until'), by: values.by, remark: values.remark};
      if (values.from) body.from = inUtc(values.from, 'from');
      if (values.group.trim()) body.group = values.group.trim();
      await api.post('maintenance', body);
    },
  });
}

function inUtc(text, fieldName) {
  const date = new Date(text);
  if (Number.isNaN(date.getTime()))
    throw Object.assign(new Error('A date and a time are needed.'), {field: fieldName});
  return date.toISOString();
}
