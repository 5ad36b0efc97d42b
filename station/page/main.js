// Starts the page: the store, the header that all views share, and the view that the address names.
import {Api} from './api.js';
import {askToken} from './dialog.js';
import {el, setAttribute, setClass, setText} from './dom.js';
import {count, duration, time} from './format.js';
import {sign} from './state.js';
import {Store} from './store.js';
import {Wall} from './wall.js';

const api = new Api();
const store = new Store(api);
const main = document.getElementById('main');
const kTitle = 'kestor';

// What a view gets: where its data is, and how it changes the address without a new view.
const context = {
  api,
  store,
  announce: (text) => setText(document.getElementById('announcer'), text),
  replaceAddress(path, parameters) {
    const text = new URLSearchParams(parameters).toString();
    history.replaceState(null, '', `#${path}${text ? `?${text}` : ''}`);
  },
};

// A module that did not come once does not come for this document any more.
async function load(file) {
  try {
    return await import(file);
  } catch {
    dispatchEvent(new Event('incomplete'));  // start.js loads the page anew
    throw new Error('the station did not give all of it.');
  }
}

// The views but the first are loaded when they are asked for.
const views = {
  '': async (parameters) => new Wall(main, context, parameters, false),
  wall: async (parameters) => new Wall(main, context, parameters, true),
  channel: async (parameters, group) =>
      new (await load('./channel.js')).ChannelView(main, context, parameters, group),
  events: async (parameters) => new (await load('./events.js')).EventsView(main, context, parameters),
  probe: async () => new (await load('./probe.js')).ProbeView(main, context),
  edit: async (parameters) => new (await load('./edit.js')).EditView(main, context, parameters),
};

let current = null;
let routing = 0;

async function route(first = false) {
  const mine = ++routing;
  const [path, parameterText = ''] = location.hash.slice(1).split('?', 2);
  const [asked, ...rest] = path.split('/');
  const name = Object.hasOwn(views, asked) ? asked : '';
  current?.close();
  current = null;
  const kiosk = name === 'wall';
  setClass(document.documentElement, kiosk ? 'kiosk' : '');
  for (const link of document.querySelectorAll('nav a')) {
    setAttribute(link, 'aria-current', link.dataset.view === name ? 'page' : null);
  }
  let view;
  try {
    view = await views[name](new URLSearchParams(parameterText), decodeURIComponent(rest.join('/')));
  } catch (error) {
    main.replaceChildren(el('p', {class: 'hint', text: `This view could not be shown: ${error.message}`}));
    return;
  }
  if (mine !== routing) {  // another one was asked for meanwhile
    view.close();
    return;
  }
  current = view;
  if (!first) {
    scrollTo(0, 0);
    main.focus({preventScroll: true});
  }
}

// Active alarms by severity, worst first.
function showSeverities() {
  const list = document.getElementById('severities');
  const severities = store.meta?.severities ?? [];
  if (list.children.length !== severities.length) {
    list.replaceChildren(...severities.map(
        (severity) =>
            el('li', {},
               el('a', {href: `#events?severity=${severity}`},
                  el('span', {class: 'sign', 'aria-hidden': 'true', text: sign(severity)}), ' ', el('b'),
                  el('span', {class: 'severity-name', text: ` ${severity}`})))));
  }
  severities.forEach((severity, place) => {
    const total = store.alarmCounts[severity] ?? 0;
    const item = list.children[place];
    setClass(item, total ? `is-${severity}` : 'none');
    setText(item.querySelector('b'), count(total));
  });
}

let loud = -1;
// Says aloud that there are more alarms of the two worst severities than before.
function announceAlarms() {
  const worst = (store.meta?.severities ?? []).slice(0, 2);
  const total = worst.reduce((sum, severity) => sum + (store.alarmCounts[severity] ?? 0), 0);
  if (loud >= 0 && total > loud)
    context.announce(worst.map((s) => `${store.alarmCounts[s]} ${s}`).join(', ') + ' alarms');
  loud = total;
}

// Live, or since when not: in words in the banner, and as a look of everything that comes from the stream.
function showConnection() {
  const stale = store.stale();
  const place = document.getElementById('connection');
  const banner = document.getElementById('banner');
  document.documentElement.dataset.stale = stale ? stale.who : '';
  setClass(place, stale ? 'lost' : 'live');
  if (!stale) {
    setText(place, store.time ? time(store.time, store.time) : '');
    banner.hidden = true;
    return;
  }
  setText(place, 'no data');
  const now = stale.who === 'station' ? Date.now() : store.now();
  const age = stale.since ? duration(Math.max(1000, Math.floor((now - stale.since) / 1000) * 1000)) : '';
  const since = stale.since ? ` since ${time(stale.since)} (${age})` : ' yet';
  setText(
      banner,
      stale.who === 'station' ?
          `No data from the station${since}. Trying again.` :
          `No data from the probe${since}.${stale.since ? ' What is shown is old.' : ''}`);
  banner.hidden = Date.now() - started < kPatienceMs;
}

const started = Date.now();
const kPatienceMs = 1_500;  // the first connection may take that long before anybody is told

function showTitle() {
  const open = store.alarms.filter((alarm) => !alarm.acknowledged).length;
  const title = open ? `(${open}) ${kTitle}` : kTitle;
  if (document.title !== title) document.title = title;
}

function showToken() {
  const node = document.getElementById('token');
  setText(node, api.mayChange ? 'Lock' : 'Unlock');
  setAttribute(
      node, 'title', api.mayChange ? 'Forget the token: look only' : 'Enter the token to make changes');
}

document.getElementById('token').addEventListener('click', () => askToken(api));
document.getElementById('skip').addEventListener('click', (event) => {
  event.preventDefault();
  main.focus();
});
addEventListener('keydown', (event) => {
  if (event.key === 'Escape' && document.documentElement.className === 'kiosk') location.hash = '#';
  const typing = event.target.closest?.('input, textarea, select, dialog');
  if (event.key === '/' && !typing) {
    const search = main.querySelector('input[type=search]');
    if (search) {
      event.preventDefault();
      search.focus();
    }
  }
});
addEventListener('hashchange', () => route());
api.onToken(showToken);
store.on('snapshot', () => {
  showConnection();
  showSeverities();
  announceAlarms();
});
store.on('meta', showSeverities);
store.on('alarms', showTitle);
store.on('connection', showConnection);
setInterval(() => {
  if (store.stale()) showConnection();
}, 1_000);
showToken();
store.start();
route(true);
