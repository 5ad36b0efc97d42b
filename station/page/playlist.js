// Cuts a playlist into pieces that the station takes in one call each.

export const kPieceBytes = 64 * 1024;
const kLineFeed = 10;
const kHash = 35;
const kMark = new TextEncoder().encode('#EXTM3U');

// Pieces of at most `limit` bytes, each of whole entries: an entry is the '#' lines before an address and the
// address. The head of the list (its "#EXTM3U" line) stands at the begin of every piece. Works on bytes,
// since the text may be UTF-8 or Latin-1. An entry larger than a piece is left out and counted in `tooLarge`.
export function cutPlaylist(bytes, limit = kPieceBytes) {
  const entries = entriesOf(bytes);
  const head = entries.head;
  const pieces = [];
  let tooLarge = 0;
  let begin = -1;
  let end = -1;
  const flush = () => {
    if (begin < 0) return;
    const piece = new Uint8Array(head.length + end - begin);
    piece.set(head);
    piece.set(bytes.subarray(begin, end), head.length);
    pieces.push(piece);
    begin = -1;
  };
  for (const entry of entries.list) {
    if (head.length + entry.end - entry.begin > limit) {
      flush();
      tooLarge++;
      continue;
    }
    if (begin >= 0 && head.length + entry.end - begin > limit) flush();
    if (begin < 0) ({begin} = entry);
    ({end} = entry);
  }
  flush();
  return {pieces, tooLarge};
}

function entriesOf(bytes) {
  const list = [];
  let head = new Uint8Array(0);
  let begin = 0;
  let isFirst = true;
  for (let line = 0; line < bytes.length;) {
    const feed = bytes.indexOf(kLineFeed, line);
    const next = feed < 0 ? bytes.length : feed + 1;
    if (isFirst && isHead(bytes, line)) {
      head = bytes.subarray(line, next);
      begin = next;
    } else if (isAddress(bytes, line, next)) {
      list.push({begin, end: next});
      begin = next;
    }
    isFirst = false;
    line = next;
  }
  return {head: feedAtEnd(head), list};
}

function feedAtEnd(head) {
  if (!head.length || head.at(-1) === kLineFeed) return head;
  return Uint8Array.of(...head, kLineFeed);
}

function isHead(bytes, line) {
  const hasByteOrderMark = bytes[line] === 0xef && bytes[line + 1] === 0xbb && bytes[line + 2] === 0xbf;
  const from = hasByteOrderMark ? line + 3 : line;
  return kMark.every((byte, place) => bytes[from + place] === byte);
}

// A line that is neither empty nor begins with '#'.
function isAddress(bytes, line, next) {
  for (let place = line; place < next; place++) {
    if (bytes[place] > 32) return bytes[place] !== kHash;
  }
  return false;
}
