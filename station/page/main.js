// Starts the page: the store, the header that all views share, and the view that the address names.
import {Alerts} from './alerts.js';
import {Api} from './api.js';
import {Banner} from './banner.js';
import {askToken, kNoChanges} from './dialog.js';
import {el, setAttribute, setClass, setText} from './dom.js';
import {count, day, time} from './format.js';
import {renewMoments} from './moments.js';
import {keepPlaces, leave, restore} from './places.js';
import {need, upgraded} from './start.js';
import {sign} from './state.js';
import {Store} from './store.js';
import {Wall} from './wall.js';
import {isUtc, setUtc, zoneName} from './zone.js';

const api = new Api();
const store = new Store(api);
const main = document.getElementById('main');
const kZone = 'zone';       // in the address
const kVersionMs = 10_000;  // between looks for a moment at which nobody types

// What a view gets: where its data is, and how it changes the address without a new view.
const context = {
  api,
  store,
  announce: (text) => setText(document.getElementById('announcer'), text),
  replaceAddress(path, parameters) {
    const text = new URLSearchParams(parameters).toString();
    showAddress(`${path}${text ? `?${text}` : ''}`);
  },
};
const banner = new Banner(context);
new Alerts(context);
let shownDay = '';

// The address with the zone in it, so that who opens it sees the same times.
function showAddress(text) {
  const [path, parameterText = ''] = text.split('?', 2);
  const parameters = new URLSearchParams(parameterText);
  parameters.delete(kZone);
  if (isUtc()) parameters.set(kZone, 'utc');
  const shown = parameters.toString();
  history.replaceState(history.state, '', `#${path}${shown ? `?${shown}` : ''}`);
  keepFilter(path, parameters);
}

// What is filtered stays so on the way between channels and the wall.
function keepFilter(path, parameters) {
  if (path !== '' && path !== 'wall') return;
  const text = parameters.toString();
  document.querySelector('nav [data-view=wall]').href = `#wall${text ? `?${text}` : ''}`;
  for (const link of document.querySelectorAll('nav [data-view=""], .leave a'))
    link.href = `#${text ? `?${text}` : ''}`;
}

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
  '': async (parameters) => new Wall(main, context, parameters),
  wall: async (parameters) => new (await load('kiosk')).Kiosk(main, context, parameters),
  channel: async (parameters, group) =>
      new (await load('channel')).ChannelView(main, context, parameters, group),
  events: async (parameters) => new (await load('events')).EventsView(main, context, parameters),
  probe: async () => new (await load('probe')).ProbeView(main, context),
  edit: async (parameters) => new (await load('edit')).EditView(main, context, parameters),
  day: async (parameters) => new (await load('day')).DayView(main, context, parameters),
  report: async (parameters) => new (await load('report')).ReportView(main, context, parameters),
  help: async (parameters, name) => new (await load('help')).HelpView(main, context, name),
};

let current = null;
let routing = 0;

// `first`: the page was loaded; `again`: the view is the same.
async function route(first = false, again = false) {
  const mine = ++routing;
  const [path, parameterText = ''] = location.hash.slice(1).split('?', 2);
  const parameters = new URLSearchParams(parameterText);
  if (parameters.get(kZone) === 'utc' && !isUtc()) setUtc(true);
  parameters.delete(kZone);
  if (isUtc()) showAddress(location.hash.slice(1));
  keepFilter(path, parameters);
  leave();
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
    view = await views[name](parameters, decodeURIComponent(rest.join('/')));
  } catch (error) {
    main.replaceChildren(el('p', {class: 'hint', text: `This view could not be shown: ${error.message}`}));
    return;
  }
  if (mine !== routing) {  // another one was asked for meanwhile
    view.close();
    return;
  }
  current = view;
  if (restore(main) || first || again) return;
  scrollTo(0, 0);
  main.focus({preventScroll: true});
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

// A page that outlived an upgrade of the station is loaded anew, but not under somebody's hands.
async function checkVersion() {
  if (!banner.outlived) banner.outlived = await upgraded();
  if (!banner.outlived) return;
  const typing = document.querySelector('dialog') || current?.isUsed?.();
  if (typing)
    banner.show();
  else
    location.reload();
}

// The zone of all times is another: what is shown is made anew, where it is.
function pressZone() {
  setUtc(!isUtc());
  banner.show();
  showAddress(location.hash.slice(1));
  route(false, true);
}

// A new day gives the times of the last one their date.
function watchDay() {
  const today = day(store.now()) + zoneName(store.now());
  if (shownDay && today !== shownDay) renewMoments(store.now());
  shownDay = today;
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
  if (event.key === 'Escape' && document.documentElement.className === 'kiosk')
    location.hash = document.querySelector('.leave a').getAttribute('href');
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
  showSeverities();
  watchDay();
});
store.on('meta', showSeverities);
// The station may be another one than before.
store.on('back', () => {
  api.loadAccess();
  checkVersion();
});
setInterval(() => {
  if (banner.outlived) checkVersion();
}, kVersionMs);
document.getElementById('zone').addEventListener('click', pressZone);
addEventListener('beforeprint', () => {
  const station = store.meta?.instance;
  setText(
      document.getElementById('printed'),
      `${station ? `${station} · ` : ''}${time(store.now(), new Date(0))} ${zoneName(store.now())} · ${
          location.href}`);
});
const header = document.getElementById('header');
// Where heads of tables stay: below the page's own.
new ResizeObserver(() => {
  document.documentElement.style.setProperty('--head', `${header.offsetHeight}px`);
}).observe(header);
keepPlaces();
showToken();
store.start();
api.loadAccess();
route(true);
