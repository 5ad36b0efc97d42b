// The library that draws plots: loaded when one is first needed, as a plain script, since it is no module.
import {el} from './dom.js';

const kScript = new URL('lib/dygraph.min.js', document.baseURI).href;
const kSheet = new URL('lib/dygraph.min.css', document.baseURI).href;
const kAgainMs = 2_000;
const kNotFound = 404;

let loading = null;
export function loadLibrary() {
  loading ??= insertLibrary().catch((error) => {
    loading = null;
    throw error;
  });
  return loading;
}

// Until it comes: a station that is busy may refuse it.
async function insertLibrary() {
  for (;;) {
    try {
      return await insertOnce();
    } catch {
      const answer = await fetch(kScript, {method: 'HEAD'}).catch(() => null);
      if (answer?.status === kNotFound)
        throw new Error(
            'The plot library is missing: install Debian\'s package libjs-dygraphs beside the station.');
      await new Promise((resolve) => setTimeout(resolve, kAgainMs));
    }
  }
}

function insertOnce() {
  return new Promise((resolve, reject) => {
    const sheet = el('link', {rel: 'stylesheet', href: kSheet});
    const script = el('script', {src: kScript});
    script.addEventListener('load', () => {
      const {Dygraph} = window;
      // The readouts here are the page's own; the library's legend sets style attributes, which the policy
      // forbids.
      Dygraph.PLUGINS = Dygraph.PLUGINS.filter((plugin) => plugin !== Dygraph.Plugins.Legend);
      resolve(Dygraph);
    });
    script.addEventListener('error', () => {
      for (const node of [sheet, script]) node.remove();
      reject(new Error('not given'));
    });
    document.head.prepend(sheet);
    document.head.append(script);
  });
}
