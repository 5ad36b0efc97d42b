// Which channels the wall shows, and in which order.

// Names of the orders, for the address and the choice.
export const kOrders = [['trouble', 'by trouble'], ['name', 'by name'], ['number', 'by number']];

// How much trouble a channel is in, less first: worst severity, not yet acknowledged before acknowledged, in
// maintenance last of its severity; then what nothing is known of, then what is well.
export function troubleRank(store, channel) {
  const state = store.value(channel, 'state');
  if (state === 'alarm') {
    const severity = store.meta ? store.meta.severities.indexOf(store.value(channel, 'severity')) : 0;
    const told = store.value(channel, 'unacknowledged') === 0 ? 1 : 0;
    return severity * 4 + (store.value(channel, 'maintenance') ? 2 : 0) + told;
  }
  if (state === 'disabled') return 1002;
  return state === 'ok' ? 1001 : 1000;
}

const kNoNumber = Number.MAX_SAFE_INTEGER;

function compareNumber(a, b) {
  return (a.info.number ?? kNoNumber) - (b.info.number ?? kNoNumber) || a.groupNumber - b.groupNumber;
}

// The channels that pass `filter` ({q, state, label}), in the order of its `sort`.
export function arrange(store, filter) {
  const words = (filter.q ?? '').toLowerCase().split(/\s+/).filter(Boolean);
  const list = [];
  for (const channel of store.channels.values()) {
    if (filter.label && !channel.labelTexts.includes(filter.label)) continue;
    if (words.some((word) => !channel.searchText.includes(word))) continue;
    if (filter.state && !passesState(store, channel, filter.state)) continue;
    list.push(channel);
  }
  if (filter.sort === 'name') return list.sort((a, b) => a.nameRank - b.nameRank);
  if (filter.sort === 'number') return list.sort(compareNumber);
  const ranks = new Map(list.map((channel) => [channel, troubleRank(store, channel)]));
  return list.sort((a, b) => ranks.get(a) - ranks.get(b) || a.nameRank - b.nameRank);
}

function passesState(store, channel, state) {
  if (state === 'new') return store.value(channel, 'unacknowledged') > 0;
  return (store.value(channel, 'state') ?? 'waiting') === state;
}

// Puts `nodes` into `parent` in this order, moving only those that are out of place: what keeps its place is
// not touched, so that nothing flickers and focus stays. The longest run of nodes that are in order already
// stays where it is.
export function placeInOrder(parent, nodes) {
  const focused = parent.contains(document.activeElement) ? document.activeElement : null;
  const wanted = new Set(nodes);
  for (const node of [...parent.children])
    if (!wanted.has(node)) node.remove();
  const keep = longestOrdered(parent, nodes);
  let next = null;
  for (let place = nodes.length - 1; place >= 0; place--) {
    const node = nodes[place];
    if (!keep.has(node)) parent.insertBefore(node, next);
    next = node;
  }
  if (focused && focused !== document.activeElement && parent.contains(focused))
    focused.focus({preventScroll: true});
}

// The nodes of a longest increasing subsequence of present places.
function longestOrdered(parent, nodes) {
  const places = new Map();
  let place = 0;
  for (const child of parent.children) places.set(child, place++);
  const tails = [];  // tails[n]: index of the node that ends the best run of n + 1
  const previous = new Array(nodes.length).fill(-1);
  nodes.forEach((node, index) => {
    const at = places.get(node);
    if (at === undefined) return;
    let low = 0;
    let high = tails.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (places.get(nodes[tails[middle]]) < at)
        low = middle + 1;
      else
        high = middle;
    }
    previous[index] = low > 0 ? tails[low - 1] : -1;
    tails[low] = index;
  });
  const keep = new Set();
  for (let index = tails.at(-1) ?? -1; index >= 0; index = previous[index]) keep.add(nodes[index]);
  return keep;
}
