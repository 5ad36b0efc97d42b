// The station's HTTP interface.

// Beside the page, wherever a proxy has put that.
const kBase = new URL('api/v1/', document.baseURI).href;
const kTimeoutMs = 15_000;
const kImportTimeoutMs = 75_000;  // the station takes 60 s for one to come
const kAccessAgainMs = 5_000;
const kTokenKey = 'kestor-token';

// `taken` makes it another one for each picture.
export const pictureAddress = (group, taken) =>
    `${kBase}channels/${encodeURIComponent(group)}/picture?taken=${encodeURIComponent(taken)}`;

// What the station refused, or why it could not be asked. `field` names what was given wrongly, or is empty;
// `status` is 0 when no answer came.
export class ApiError extends Error {
  constructor(status, text, field = '') {
    super(text);
    this.status = status;
    this.field = field;
  }
  // Whether a token, or another one, would do.
  get needsToken() {
    return this.status === 401;
  }
}

async function refusal(answer) {
  let problem = {};
  try {
    problem = await answer.json();
  } catch {
    // No problem document: the status has to do.
  }
  const text = problem.detail || problem.title || `The station answered ${answer.status}.`;
  return new ApiError(answer.status, String(text), String(problem.field ?? ''));
}

async function send(method, path, token, body, type, timeout = kTimeoutMs) {
  const headers = {};
  if (token) headers.Authorization = `Bearer ${token}`;
  if (type) headers['Content-Type'] = type;
  let answer;
  try {
    answer = await fetch(
        kBase + path, {method, headers, body, cache: 'no-store', signal: AbortSignal.timeout(timeout)});
  } catch {
    throw new ApiError(0, 'The station does not answer.');
  }
  if (!answer.ok) throw await refusal(answer);
  if (answer.status === 204) return null;
  try {
    return await answer.json();
  } catch {
    throw new ApiError(0, 'The station\'s answer was cut off.');
  }
}

export class Api {
  constructor() {
    this.listeners = new Set();
    // What changes need here: 'token', 'allowed' without one, or 'refused' whatever one has; null while
    // unknown.
    this.changes = null;
    // Called when a change was refused for want of the right token; resolves to whether there is one at last.
    this.onRefused = async () => false;
  }

  // Kept for this tab and until it closes, no longer.
  get token() {
    return sessionStorage.getItem(kTokenKey) ?? '';
  }
  set token(token) {
    if (token)
      sessionStorage.setItem(kTokenKey, token);
    else
      sessionStorage.removeItem(kTokenKey);
    this.tell();
  }
  tell() {
    for (const listener of this.listeners) listener();
  }
  get mayChange() {
    return this.changes === 'allowed' || (this.token !== '' && this.changes !== 'refused');
  }
  // Calls `listener` when what may be changed is another; returns what ends that.
  onToken(listener) {
    this.listeners.add(listener);
    return () => this.listeners.delete(listener);
  }

  // The answer's JSON. A change that is refused for its token is sent again once there is another.
  async request(method, path, body, type, timeout) {
    for (;;) {
      const token = method === 'GET' ? '' : this.token;
      try {
        return await send(method, path, token, body, type, timeout);
      } catch (error) {
        if (method === 'GET' || !error.needsToken || !await this.askAgain(token)) throw error;
      }
    }
  }

  // Forgets a token that is not right any more.
  async askAgain(refused) {
    if (this.token && this.token !== refused) return true;  // another one came meanwhile
    if (this.token) this.token = '';
    return this.onRefused();
  }

  get(path) {
    return this.request('GET', path);
  }
  put(path, body) {
    return this.request('PUT', path, JSON.stringify(body), 'application/json');
  }
  post(path, body = {}) {
    return this.request('POST', path, JSON.stringify(body), 'application/json');
  }
  remove(path) {
    return this.request('DELETE', path);
  }
  // `bytes`: of a whole playlist, at most 16 MiB.
  importPlaylist(bytes) {
    return this.request('POST', 'import', bytes, 'text/plain', kImportTimeoutMs);
  }

  // Asks what changes need here, until the station says it, and drops a token that is not right any more.
  async loadAccess() {
    clearTimeout(this.accessAgain);
    try {
      this.changes = (await send('GET', 'access', '')).changes;
      if (this.token && !await this.accepts(this.token)) this.token = '';
    } catch {
      this.accessAgain = setTimeout(() => this.loadAccess(), kAccessAgainMs);
      return;
    }
    this.tell();
  }

  // Whether this token is the right one. Throws an ApiError when that is not known.
  async accepts(token) {
    try {
      return (await send('GET', 'access', token)).changes === 'allowed';
    } catch (error) {
      if (error.needsToken) return false;
      throw error;
    }
  }

  url(path) {
    return kBase + path;
  }
}

// `ask`, one at a time: what is asked for while it runs is asked for once more, `pause` ms after it is done,
// since its answer may be older.
export function oneAtATime(ask, pause = 0) {
  let asking = false;
  let again = false;
  return async () => {
    again = asking;
    if (asking) return;
    asking = true;
    try {
      do {
        again = false;
        await ask();
        if (pause) await new Promise((resolve) => setTimeout(resolve, pause));
      } while (again);
    } finally {
      asking = false;
    }
  };
}

// "a=1&b=2" of what is set.
export function query(parameters) {
  const set =
      Object.entries(parameters).filter(([, value]) => value !== '' && value !== null && value !== undefined);
  return new URLSearchParams(set).toString();
}
