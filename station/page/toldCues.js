// The cues of a channel that the station keeps, which outlast the meter; asked for when there is a newer one.

const kField = 'lastCue';  // of the wall's rows

// What makes two tellings of a cue the same.
function keyOf({pid, command, eventId, out, pts, cancelled}) {
  return [pid, command, eventId, out, pts, cancelled].join();
}

export class ToldCues {
  constructor(api, store, group) {
    this.api = api;
    this.store = store;
    this.group = group;
    this.list = null;  // oldest first; null while nobody told
  }

  // Once a second.
  async turn() {
    const channel = this.store.channels.get(this.group);
    if (this.asking || document.hidden || !channel || this.store.index[kField] === undefined) return;
    const newest = this.store.value(channel, kField);
    if (this.list && newest === this.newest) return;
    this.asking = true;
    try {
      const told = await this.api.get(`channels/${encodeURIComponent(this.group)}/cues`);
      this.list = told.map((cue) => ({...cue, at: cue.at ?? cue.time})).reverse();
      this.newest = newest;
    } catch {
      // The next turn asks again.
    }
    this.asking = false;
  }

  // Oldest first: those that are kept and those of the report, which has the newest figures of its own; null
  // while there is neither.
  with(report) {
    if (!this.list) return report?.cues ?? null;
    const cues = new Map(this.list.map((cue) => [keyOf(cue), cue]));
    for (const cue of report?.cues ?? []) {
      const key = keyOf(cue);
      cues.set(key, {...cue, at: cue.at ?? cues.get(key)?.at ?? null});
    }
    return [...cues.values()];
  }
}
