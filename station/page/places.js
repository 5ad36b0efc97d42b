// Where somebody was on a page: scroll and focus are kept with each entry of the browser's history, so that
// back and a reload lead there again.

const kSaveMs = 200;
const kTryMs = 4_000;  // lists come from the station; from the first of it on until it is as long as before
const kSettleMs = 1_000;

let timer = 0;
let trying = null;
let settled = 0;
let isLeft = false;  // the address is that of another entry, what is shown is not yet

function save() {
  clearTimeout(timer);
  timer = 0;
  const link = document.activeElement?.closest?.('main a[href]');
  const state = {...history.state, scroll: Math.round(scrollY), focus: link?.getAttribute('href') ?? null};
  history.replaceState(state, '');
}

function later() {
  if (!timer && !trying && !isLeft) timer = setTimeout(save, kSaveMs);
}

export function keepPlaces() {
  history.scrollRestoration = 'manual';
  addEventListener('scroll', later, {passive: true});
  document.addEventListener('focusin', later);
  // What is kept when the page hides is too late for a reload.
  for (const event of ['beforeunload', 'pagehide']) addEventListener(event, () => isLeft || save());
  addEventListener('popstate', drop);  // comes with the other entry; hashchange may be some tasks behind
  for (const event of ['wheel', 'touchmove', 'keydown', 'pointerdown'])
    addEventListener(event, stop, {passive: true});
}

function stop() {
  if (!trying) return;
  trying.disconnect();
  trying = null;
  clearTimeout(settled);
  document.documentElement.style.overflowAnchor = '';
}

function drop() {
  clearTimeout(timer);
  timer = 0;
  stop();
}

// What is kept is of another entry from here on, and of none until restore(): its view may be long in coming.
export function leave() {
  drop();
  isLeft = true;
}

// Goes to where the entry was left, as soon as there is so much to show, and stays there while what is above
// it still grows; false for an entry that is new.
export function restore(main) {
  isLeft = false;
  const {scroll = 0, focus = null} = history.state ?? {};
  if (!scroll && !focus) return false;
  let end;
  const find = () => [...main.querySelectorAll('a[href]')].find((one) => one.getAttribute('href') === focus);
  const attempt = () => {
    const room = document.documentElement.scrollHeight - innerHeight;
    const link = focus ? find() : null;
    if (main.querySelector('a[href]')) end ??= Date.now() + kTryMs;
    if ((room < scroll || (focus && !link)) && !(Date.now() >= end)) return;
    scrollTo(0, scroll);
    if (link && link !== document.activeElement) link.focus({preventScroll: true});
    settled ||= setTimeout(stop, kSettleMs);
  };
  settled = 0;
  document.documentElement.style.overflowAnchor = 'none';
  trying = new MutationObserver(attempt);
  trying.observe(main, {childList: true, subtree: true});
  attempt();
  return true;
}
