// Starts the page: the store, the header that all views share, and the view that the address names.
import {Api} from './api.js';
import {askToken, kNoChanges} from './dialog.js';
import {el, setAttribute, setClass, setText} from './dom.js';
import {count, duration, parseTime, time, visible} from './format.js';
import {need, upgraded} from './start.js';
import {sign} from './state.js';
import {Store} from './store.js';
import {Wall} from './wall.js';

const api = new Api();
const store = new Store(api);
const main = document.getElementById('main');
const kTitle = 'kestor';
const kReceiversMs = 10_000;

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

async function load(name) {
  await need(name);
  try {
    return await import(`./${name}.js`);
  } catch {
    throw new Error('the station did not give all of it. Load the page anew.');
  }
}

// The views but the first are loaded when they are asked for.
const views = {
  '': async (parameters) => new Wall(main, context, parameters, false),
  wall: async (parameters) => new Wall(main, context, parameters, true),
  channel: async (parameters, group) =>
      new (await load('channel')).ChannelView(main, context, parameters, group),
  events: async (parameters) => new (await load('events')).EventsView(main, context, parameters),
  probe: async () => new (await load('probe')).ProbeView(main, context),
  edit: async (parameters) => new (await load('edit')).EditView(main, context, parameters),
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
    const total = store.alarmCounts?.[severity];
    const item = list.children[place];
    setClass(item, total ? `is-${severity}` : 'none');
    setText(item.querySelector('b'), count(total));
  });
}

let loud = -1;
// Says aloud that there are more alarms of the two worst severities than before.
function announceAlarms() {
  const worst = (store.meta?.severities ?? []).slice(0, 2);
  const total = worst.reduce((sum, severity) => sum + (store.alarmCounts?.[severity] ?? 0), 0);
  if (!store.alarmCounts) return;
  if (loud >= 0 && total > loud)
    context.announce(worst.map((s) => `${store.alarmCounts[s]} ${s}`).join(', ') + ' alarms');
  loud = total;
}

// What everybody has to know, a line each: that nothing comes, or not by the stream; that nobody is told.
function troubles() {
  const lines = [];
  const stale = store.stale();
  const problem = store.told && store.probe?.problem ? visible(store.probe.problem) : '';
  if (stale) {
    const now = stale.who === 'station' ? Date.now() : store.now();
    const age = stale.since ? duration(Math.max(1000, Math.floor((now - stale.since) / 1000) * 1000)) : '';
    const since = stale.since ? ` since ${time(stale.since)} (${age})` : ' yet';
    lines.push(
        stale.who === 'station' ?
            `No data from the station${since}. Trying again.` :
            `No data from the probe${since}.${stale.since ? ' What is shown is old.' : ''} ${problem}`
                .trim());
  } else if (problem)
    lines.push(problem);
  const machine = store.told && store.probe?.machineProblem;
  if (machine) lines.push(visible(machine));
  if (!store.connection.live && store.told) {
    lines.push(
        `The event stream does not come; asked at ${time(new Date(store.answered))} instead. ` +
        'A proxy in between may hold it back.');
  }
  lines.push(...failingDeliveries());
  if (outlived) lines.push('The station has another version of this page. Load it anew.');
  return lines;
}

// Live, or since when not: in words in the banner, and as a look of everything that comes from the stream.
function showConnection() {
  const stale = store.stale();
  const place = document.getElementById('connection');
  const banner = document.getElementById('banner');
  document.documentElement.dataset.stale = stale ? stale.who : '';
  setClass(place, stale ? 'lost' : 'live');
  setText(place, stale ? 'no data' : store.time ? time(store.time, store.time) : '');
  const lines = troubles();
  while (banner.children.length > lines.length) banner.lastChild.remove();
  while (banner.children.length < lines.length) banner.append(el('p'));
  lines.forEach((line, place) => setText(banner.children[place], line));
  banner.hidden = !lines.length || Date.now() - started < kPatienceMs;
}

const started = Date.now();
const kPatienceMs = 1_500;  // the first connection may take that long before anybody is told

const kDeliveryFailing = 'delivery_failing';
let receivers = [];  // that fail, as /api/v1/use has them

// Whom nobody tells of alarms. The alarm says that it is so, and the station's use which it is and why.
function failingDeliveries() {
  const alarm = store.alarms?.find((one) => one.alarm === kDeliveryFailing);
  if (!alarm) return [];
  const since = `since ${time(parseTime(alarm.raised), store.now())}`;
  if (!receivers.length) return [`A webhook fails ${since}: nobody is told of alarms by it. See Probe.`];
  return receivers.map(
      ({name, url, lastProblem}) => `Webhook ${visible(name)} (${visible(url)}) is told of no alarm ${
          since}: ${visible(lastProblem ?? 'it fails')}`);
}

async function loadReceivers() {
  if (!store.alarms?.some(({alarm}) => alarm === kDeliveryFailing)) {
    receivers = [];
  } else {
    try {
      receivers = (await api.get('use')).delivery.filter(({failingSince}) => failingSince);
    } catch {
      // The line without their names has to do.
    }
  }
  showConnection();
}

let outlived = false;  // the station has another page than this one
// A page that outlived an upgrade of the station is loaded anew, but not under somebody's hands.
async function checkVersion() {
  if (!outlived) outlived = await upgraded();
  if (!outlived) return;
  const typing = document.querySelector('dialog') || current?.isUsed?.();
  if (typing)
    showConnection();
  else
    location.reload();
}

function showTitle() {
  const open = store.alarms?.filter((alarm) => !alarm.acknowledged).length;
  const title = open ? `(${open}) ${kTitle}` : kTitle;
  if (document.title !== title) document.title = title;
}

function showToken() {
  const node = document.getElementById('token');
  const refused = api.changes === 'refused';
  node.hidden = api.changes === 'allowed' || api.changes === null;
  setText(node, refused ? 'Look only' : api.mayChange ? 'Lock' : 'Unlock');
  setAttribute(
      node, 'title',
      refused           ? kNoChanges :
          api.mayChange ? 'Forget the token: look only' :
                          'Enter the token to make changes');
}

function pressToken() {
  if (api.token)
    api.token = '';
  else
    askToken(api);
}

document.getElementById('token').addEventListener('click', pressToken);
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
api.onRefused = async () => {
  await api.loadAccess();
  return askToken(api, 'The station does not take the token that it was given. ');
};
store.on('snapshot', () => {
  showConnection();
  showSeverities();
  announceAlarms();
});
store.on('meta', showSeverities);
store.on('alarms', () => {
  showTitle();
  loadReceivers();
});
store.on('connection', showConnection);
// The station may be another one than before.
store.on('back', () => {
  api.loadAccess();
  checkVersion();
});
setInterval(() => {
  if (troubles().length) showConnection();
}, 1_000);
setInterval(() => {
  if (outlived) checkVersion();
  if (!document.hidden) loadReceivers();
}, kReceiversMs);
showToken();
store.start();
api.loadAccess();
route(true);
