// What of all channels is shown and how, as the address has it.

// {q, state, alarm, labels: ["site=north"], sort, view, pictures: "on" or "off", by: "site", fold: Set of
// values of `by`}
export function filterOf(parameters) {
  const one = (name) => parameters.get(name) ?? '';
  return {
    q: one('q'),
    state: one('state'),
    alarm: one('alarm'),
    labels: parameters.getAll('label').filter(Boolean),
    sort: one('sort'),
    view: one('view'),
    pictures: one('pictures'),
    by: one('by'),
    fold: new Set(parameters.getAll('fold'))
  };
}

// Pairs for the address; what is as it is without being chosen is left out.
export function addressOf({labels, fold, ...texts}) {
  return [
    ...Object.entries(texts).filter(([, value]) => value), ...labels.map((label) => ['label', label]),
    ...(texts.by ? [...fold].map((value) => ['fold', value]) : [])
  ];
}

// {key -> those of the list}, keys in the order in which they come; `take` gives one's key.
export function groupedBy(list, take) {
  const groups = new Map();
  for (const one of list) {
    const key = take(one);
    if (groups.has(key))
      groups.get(key).push(one);
    else
      groups.set(key, [one]);
  }
  return groups;
}

// Names of labels that channels have, in order.
export function labelNames(store) {
  const names = new Set();
  for (const {info: {labels}} of store.channels.values())
    for (const name of Object.keys(labels)) names.add(name);
  return [...names].sort();
}

// The value of the label that is grouped by; empty for channels without it, and for what is of no channel.
export function valueOf(channel, by) {
  const labels = channel?.info.labels;
  return labels && Object.hasOwn(labels, by) ? labels[by] : '';
}

const values = new Intl.Collator(undefined, {numeric: true, sensitivity: 'base'});

// Of the labels' values; those without come last.
export function compareValues(a, b) {
  return Number(a === '') - Number(b === '') || values.compare(a, b);
}
