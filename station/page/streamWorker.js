// A shared worker: one event stream for all tabs of a browser. Texts are passed on as they came; a tab that
// joins gets the newest of each kind at once. The worker's name is the stream's address.
import {EventStream} from './stream.js';

const kForgetMs = 180_000;  // hidden tabs may run a timer only once a minute

const ports = new Map();   // port -> when it was last heard of
const newest = new Map();  // event name -> text
let stream = null;

function send(port, message) {
  port.postMessage(message);
}

function toAll(message) {
  const now = Date.now();
  for (const [port, heard] of ports) {
    if (now - heard > kForgetMs)
      ports.delete(port);
    else
      send(port, message);
  }
  if (ports.size === 0) stop();
}

function start() {
  stream ??= new EventStream(self.name, (name, text) => {
    newest.set(name, text);
    toAll({name, text});
  }, (connection) => toAll({connection}));
}

function stop() {
  stream?.close();
  stream = null;
  newest.clear();
}

function join(port) {
  const isNew = !ports.has(port);
  ports.set(port, Date.now());
  if (!isNew) return;
  start();
  send(port, {connection: stream.connection});
  for (const [name, text] of newest) send(port, {name, text});
}

self.addEventListener('connect', ({ports: [port]}) => {
  port.onmessage = ({data}) => {
    if (data !== 'leave') {
      join(port);
      return;
    }
    ports.delete(port);
    if (ports.size === 0) stop();
  };
});
