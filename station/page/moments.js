// Times in rows that are made once: as <time>, so that a new day gives those of yesterday their date.
import {el, setText} from './dom.js';
import {parseTime, time} from './format.js';

// `text`: RFC 3339, or null.
export function momentNode(text, now) {
  const date = parseTime(text);
  return date ? el('time', {datetime: text, title: text, text: time(date, now)}) : '–';
}

// Of all that the document shows.
export function renewMoments(now) {
  for (const node of document.querySelectorAll('time[datetime]'))
    setText(node, time(parseTime(node.dateTime), now));
}
