// Loads the page's modules and watches that all of them come. A station with too many connections refuses
// some, and a page that lacks a module shows nothing, for as long as it is not loaded anew. This file is
// asked for first, so that it comes by the connection that index.html came by, which is not refused.
'use strict';

{
  const kAgainMs = 3_000;
  // What main.js imports at once: all asked for together, and not one import after the other.
  const kModules = [
    'main', 'api', 'store', 'stream', 'dom', 'format', 'state', 'wall', 'tile', 'order', 'canvas', 'spark',
    'strip', 'dialog'
  ];
  let waiting = false;

  function say() {
    const text = document.createElement('p');
    text.className = 'hint';
    text.setAttribute('role', 'alert');
    text.textContent = 'The station did not give all of this page. Trying again.';
    document.getElementById('main').before(text);
  }

  // Asks first: what comes in place of a page that is refused would not try again.
  async function again() {
    try {
      const answer = await fetch('/', {cache: 'no-store'});
      if (answer.ok) {
        location.reload();
        return;
      }
    } catch {
      // The station does not answer.
    }
    setTimeout(again, kAgainMs);
  }

  function incomplete() {
    if (waiting) return;
    waiting = true;
    if (document.getElementById('main'))
      say();
    else
      addEventListener('DOMContentLoaded', say);
    setTimeout(again, kAgainMs);
  }

  // Of the style sheet or a module.
  function failed({target}) {
    const url = target.src ?? target.href;
    if (url && new URL(url).pathname.startsWith('/page/')) incomplete();
  }

  addEventListener('error', failed, true);
  addEventListener('load', () => removeEventListener('error', failed, true));
  addEventListener('incomplete', incomplete);  // from a view whose module did not come

  for (const name of kModules) {
    const link = document.createElement('link');
    link.rel = 'modulepreload';
    link.href = `/page/${name}.js`;
    document.head.append(link);
  }
  addEventListener('DOMContentLoaded', () => {
    const script = document.createElement('script');
    script.type = 'module';
    script.src = '/page/main.js';
    document.head.append(script);
  });
}
