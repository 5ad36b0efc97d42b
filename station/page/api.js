// The station's HTTP interface.

const kBase = '/api/v1/';
const kTimeoutMs = 15_000;
const kTokenKey = 'kestor-token';

// What the station refused, or why it could not be asked. `field` names what was given wrongly, or is empty;
// `status` is 0 when no answer came.
export class ApiError extends Error {
  constructor(status, text, field = '') {
    super(text);
    this.status = status;
    this.field = field;
  }
  get needsToken() {
    return this.status === 401 || this.status === 403;
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

export class Api {
  constructor() {
    this.listeners = new Set();
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
    for (const listener of this.listeners) listener();
  }
  get mayChange() {
    return this.token !== '';
  }
  // Calls `listener` when a token came or went; returns what ends that.
  onToken(listener) {
    this.listeners.add(listener);
    return () => this.listeners.delete(listener);
  }

  async request(method, path, body, type) {
    const headers = {};
    if (method !== 'GET' && this.token) headers.Authorization = `Bearer ${this.token}`;
    if (type) headers['Content-Type'] = type;
    let answer;
    try {
      answer = await fetch(
          kBase + path, {method, headers, body, cache: 'no-store', signal: AbortSignal.timeout(kTimeoutMs)});
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
  // `piece`: bytes of a playlist, at most 64 KiB.
  importPiece(piece) {
    return this.request('POST', 'import', piece, 'text/plain');
  }

  // Whether the station takes changes with this token. Asks for the end of a maintenance window that cannot
  // exist, which changes nothing.
  async accepts(token) {
    const answer = await fetch(`${kBase}maintenance/0`, {
      method: 'DELETE',
      headers: {Authorization: `Bearer ${token}`},
      signal: AbortSignal.timeout(kTimeoutMs),
    });
    return answer.status !== 401 && answer.status !== 403;
  }

  url(path) {
    return kBase + path;
  }
}

// "a=1&b=2" of what is set.
export function query(parameters) {
  const set =
      Object.entries(parameters).filter(([, value]) => value !== '' && value !== null && value !== undefined);
  return new URLSearchParams(set).toString();
}
