// The order of nodes on the page.

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
