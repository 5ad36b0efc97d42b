// Which alarms a request is about.

const kMostIds = 4000;  // of one call

// Those of an incident, whatever joins it meanwhile, or the alarms (or what is shelved) given.
export function chosen(alarms, incident = null) {
  return incident ? [{incident: incident.id}] : idsOf(alarms);
}

function idsOf(alarms) {
  const ids = alarms.map(({id}) => id);
  const parts = [];
  for (let at = 0; at < ids.length; at += kMostIds) parts.push({ids: ids.slice(at, at + kMostIds)});
  return parts;
}
