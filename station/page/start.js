// Begins with main.js, and gets what the station refuses of the page, however often it does. A module that
// did not come once does not come for this document any more. So those of a view are fetched before they are
// imported, again and again, and kept by the browser: what imports them then asks nobody. Where main.js
// itself or what it imports was refused the same is done, and the page loaded anew with all of it kept.

const kFirstWaitMs = 500;
const kLongestWaitMs = 4_000;
const kNotFound = 404;
const kImport = /\bfrom '\.\/(\w+)\.js'/g;

const coming = new Map();  // name -> promise of the names that it imports, once the browser has it
let missing = 0;           // files that were refused and are asked for again
let note = null;

const pause = (time) => new Promise((resolve) => setTimeout(resolve, time));
const urlOf = (file) => new URL(file, import.meta.url).href;

// Says that something is missing, for as long as it is.
function showMissing(change) {
  missing += change;
  if (!note) {
    note = document.createElement('p');
    note.className = 'hint';
    note.setAttribute('role', 'alert');
    note.textContent = 'The station did not give all of this page. Trying again.';
  }
  if (missing)
    document.getElementById('main').before(note);
  else
    note.remove();
}

// Fetches a file until it comes, and returns its text.
async function fetched(url) {
  let wait = kFirstWaitMs;
  for (let first = true;; first = false) {
    try {
      const answer = await fetch(url);
      if (answer.ok) {
        const text = await answer.text();
        if (!first) showMissing(-1);
        return text;
      }
      if (answer.status === kNotFound && await upgraded()) return reload();
    } catch {
      // No answer, or one that was cut off.
    }
    if (first) showMissing(1);
    await pause(wait);
    wait = Math.min(2 * wait, kLongestWaitMs);
  }
}

async function importsOf(name) {
  const text = await fetched(urlOf(`./${name}.js`));
  return [...text.matchAll(kImport)].map(([, other]) => other);
}

// Resolves when the browser has the module and all that it imports.
export async function need(name, seen = new Set()) {
  if (seen.has(name)) return;
  seen.add(name);
  if (!coming.has(name)) coming.set(name, importsOf(name));
  const others = await coming.get(name);
  await Promise.all(others.map((other) => need(other, seen)));
}

// The page as the station has it at this moment; null when it gives none.
async function index() {
  try {
    const answer = await fetch(document.baseURI, {cache: 'no-store'});
    return answer.ok ? await answer.text() : null;
  } catch {
    return null;
  }
}

// Whether the station's page is of another version than this document: its address has the version.
export async function upgraded() {
  const text = await index();
  return text !== null && !text.includes(`page/${import.meta.url.split('/').at(-2)}/`);
}

function reload() {
  location.reload();
  return new Promise(() => {});  // nothing that waits goes on
}

// Loads the page anew once the station gives it: what comes in place of a page that is refused would not try
// again.
async function again() {
  while (await index() === null) await pause(kLongestWaitMs);
  return reload();
}

// A style sheet that was refused may be asked for again by itself.
async function style() {
  const [link] = document.querySelectorAll('link[rel=stylesheet]');
  if (link.sheet?.cssRules.length) return;
  await fetched(link.href);
  const fresh = link.cloneNode();
  fresh.addEventListener('error', () => setTimeout(style, kLongestWaitMs));
  link.replaceWith(fresh);
}

function begin() {
  const script = document.createElement('script');
  script.type = 'module';
  script.src = urlOf('./main.js');
  script.addEventListener('error', async () => {  // index.html had all of it loaded ahead
    showMissing(1);
    await pause(kFirstWaitMs);
    await need('main');
    await again();
  });
  document.head.append(script);
}

if (document.readyState === 'complete')
  style();
else
  addEventListener('load', style);
begin();
