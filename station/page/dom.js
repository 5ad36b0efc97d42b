// Elements without markup: every text goes in as text.
import {visible} from './format.js';

// Makes an element. `attributes`: class, text (textContent), on (listeners by event), anything else as an
// attribute; true sets an empty one, false, null and undefined none.
export function el(tag, attributes = {}, ...children) {
  const node = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (value === false || value === null || value === undefined) continue;
    if (name === 'class')
      node.className = value;
    else if (name === 'text')
      node.textContent = value;
    else if (name === 'on') {
      for (const [event, listener] of Object.entries(value)) node.addEventListener(event, listener);
    } else
      node.setAttribute(name, value === true ? '' : value);
  }
  node.append(...children.filter((child) => child !== null && child !== undefined && child !== false));
  return node;
}

// Sets the text only where it differs from what the node has, so that what did not change costs nothing and
// no screen reader is told of it.
export function setText(node, text) {
  const child = node.firstChild;
  const same = child ? child === node.lastChild && child.data === text : text === '';
  if (!same) node.textContent = text;
}

export function setClass(node, name) {
  if (node.className !== name) node.className = name;
}

// Sets or, for null, removes an attribute.
export function setAttribute(node, name, value) {
  if (value === null) {
    if (node.hasAttribute(name)) node.removeAttribute(name);
  } else if (node.getAttribute(name) !== value)
    node.setAttribute(name, value);
}

// A labelled input: {wrapper, input, fail(text)}; `more` stands beside it. fail() shows under the input what
// is wrong with it and ties the two for screen readers; without a text it takes that away.
let fields = 0;
export function field(label, input, hint = '', more = null) {
  const id = `field${++fields}`;
  input.id = id;
  const error = el('p', {class: 'field-error', id: `${id}-error`, role: 'alert'});
  const wrapper =
      el('div', {class: input.type === 'checkbox' ? 'field tick' : 'field'}, el('label', {for: id, text: label
         }), input, more, hint ? el('p', {class: 'field-hint', id: `${id}-hint`, text: hint}) : null, error);
  if (hint) input.setAttribute('aria-describedby', `${id}-hint`);
  return {
    wrapper,
    input,
    fail(text = '') {
      setText(error, text);
      setAttribute(input, 'aria-invalid', text ? 'true' : null);
      setAttribute(input, 'aria-errormessage', text ? error.id : null);
      if (text) input.focus();
    },
  };
}

export function button(text, onClick, attributes = {}) {
  return el('button', {type: 'button', text, on: {click: onClick}, ...attributes});
}

// A name with underscores as nodes, with a place to break a line after each of them.
export function breakable(name) {
  return visible(name).split(/(?<=_)/).flatMap((part, place) => (place ? [el('wbr'), part] : [part]));
}
