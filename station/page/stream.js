// The station's event stream: opened, watched and opened again for as long as the page lives.

const kEvents = ['snapshot', 'alarm', 'channels'];
const kSilenceMs = 10_000;  // a snapshot comes each second: silence for so long is a dead connection
const kFirstWaitMs = 500;
const kLongestWaitMs = 4_000;

export class EventStream {
  // `url`: of the stream. onEvent(name, text): what came. onConnection({live, since}): live or not since (ms
  // since the epoch); not live: the time of the last event, or of the first attempt.
  constructor(url, onEvent, onConnection) {
    this.url = url;
    this.onEvent = onEvent;
    this.onConnection = onConnection;
    this.connection = {live: false, since: Date.now()};
    this.lastHeard = Date.now();
    this.wait = kFirstWaitMs;
    this.source = null;
    this.watch = 0;
    this.retry = 0;
    this.open();
  }

  open() {
    this.source = new EventSource(this.url);
    for (const name of kEvents) {
      this.source.addEventListener(name, (event) => this.heard(name, event.data));
    }
    // The browser's own reopening gives up after some answers and waits long after others.
    this.source.addEventListener('error', () => this.lost());
    this.watchSilence();
  }

  heard(name, text) {
    this.lastHeard = Date.now();
    this.wait = kFirstWaitMs;
    this.watchSilence();
    if (!this.connection.live) this.tell({live: true, since: this.lastHeard});
    this.onEvent(name, text);
  }

  watchSilence() {
    clearTimeout(this.watch);
    this.watch = setTimeout(() => this.lost(), kSilenceMs);
  }

  lost() {
    this.source.close();
    clearTimeout(this.watch);
    if (this.connection.live) this.tell({live: false, since: this.lastHeard});
    clearTimeout(this.retry);
    this.retry = setTimeout(() => this.open(), this.wait);
    this.wait = Math.min(2 * this.wait, kLongestWaitMs);
  }

  tell(connection) {
    this.connection = connection;
    this.onConnection(connection);
  }

  close() {
    clearTimeout(this.watch);
    clearTimeout(this.retry);
    this.source.close();
  }
}
