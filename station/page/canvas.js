// What all drawings share: a canvas in the screen's own pixels, and the style sheet's colours.

let colours = null;

// The style sheet's colours for drawings; read again when the system changes them.
export function palette() {
  if (colours) return colours;
  const style = getComputedStyle(document.documentElement);
  const read = (name) => style.getPropertyValue(name).trim();
  colours = {
    line: read('--line'),
    fill: read('--line-fill'),
    band: read('--line-band'),
    ok: read('--strip-ok'),
    alarm: read('--strip-alarm'),
    noSignal: read('--strip-no-signal'),
    faint: read('--faint'),
    grid: read('--edge'),
    text: read('--muted'),
    mark: read('--accent'),
    cue: read('--cue'),
    second: read('--second'),
    severities: Object.fromEntries(kSeverities.map((severity) => [severity, read(`--${severity}`)])),
    rates: Object.fromEntries(kRateKinds.map((kind) => [kind, read(`--rate-${kind}`)])),
    rateShade: read('--ground'),
  };
  return colours;
}

const kSeverities = ['critical', 'major', 'minor', 'warning'];
const kRateKinds = ['video', 'audio', 'data', 'table', 'null'];
const kLikeRates = {
  subtitle: 'data',
  teletext: 'data',
  cue: 'data',
  clock: 'table',
  unreferenced: 'table'
};
const kShades = 3;  // of PIDs of one kind, so that neighbours differ

// The colour of a PID's rate by what the PID carries; `place`: which one of its kind it is.
export function rateColour(kind, place) {
  const {rates, rateShade} = palette();
  return mixed(rates[kind] ?? rates[kLikeRates[kind] ?? 'data'], rateShade, 0.25 * (place % kShades));
}

// Between two colours, both as "#rrggbb": the first for 0, the second for 1.
function mixed(from, to, share) {
  const parts = [1, 3, 5].map((place) => {
    const [a, b] = [from, to].map((colour) => parseInt(colour.slice(place, place + 2), 16));
    return Math.round(a + (b - a) * share).toString(16).padStart(2, '0');
  });
  return `#${parts.join('')}`;
}

const redraws = new Set();

// Calls `redraw` when the system turns from dark to light or back, and when the page goes onto paper or comes
// back, where drawings are of another size too; returns what ends that.
export function onPaletteChange(redraw) {
  redraws.add(redraw);
  return () => redraws.delete(redraw);
}

// Whether the page is being printed.
export function isOnPaper() {
  return document.documentElement.classList.contains('paper');
}

function redrawAll() {
  colours = null;
  for (const redraw of redraws) redraw();
}

function putOnPaper(on) {
  document.documentElement.classList.toggle('paper', on);
  for (const canvas of document.querySelectorAll('canvas')) forgetSize(canvas);
  redrawAll();
}

matchMedia('(prefers-color-scheme: dark)').addEventListener('change', redrawAll);
addEventListener('beforeprint', () => putOnPaper(true));
addEventListener('afterprint', () => putOnPaper(false));

// Sizes the canvas for its box, which it remembers: asking for a box forces a layout. forgetSize() after the
// box changed.
export function fitCanvas(canvas) {
  const context = canvas.getContext('2d');
  if (canvas.boxWidth === undefined) {
    canvas.boxWidth = canvas.clientWidth;
    canvas.boxHeight = canvas.clientHeight;
    const ratio = devicePixelRatio || 1;
    canvas.width = Math.round(canvas.boxWidth * ratio);
    canvas.height = Math.round(canvas.boxHeight * ratio);
    context.setTransform(ratio, 0, 0, ratio, 0, 0);
  }
  return {context, width: canvas.boxWidth, height: canvas.boxHeight};
}

export function forgetSize(canvas) {
  canvas.boxWidth = undefined;
}
