// Focus stays where it was when rows are made anew.

const kFocusable = 'button, a[href], input, select';

// Calls `change`, which makes what `root` holds anew, and gives focus to what stands where it was: in the row
// of the same group, else in the row at the same place, else at `otherwise`.
export function keepingFocus(root, change, otherwise = null) {
  const focused = document.activeElement;
  if (!root.contains(focused)) {
    change();
    return;
  }
  const row = focused.closest('tr');
  const place = row ? [...row.parentNode.children].indexOf(row) : -1;
  const within = row ? [...row.querySelectorAll(kFocusable)].indexOf(focused) : -1;
  const group = row?.dataset.group;
  change();
  if (focused.isConnected) {  // it was moved
    focused.focus({preventScroll: true});
    return;
  }
  const rows = [...root.querySelectorAll('tbody tr'), ...(root.tagName === 'TBODY' ? root.children : [])];
  const same =
      rows.find((one) => group && one.dataset.group === group) ?? rows[Math.min(place, rows.length - 1)];
  const there = [...(same?.querySelectorAll(kFocusable) ?? [])];
  (there[Math.min(within, there.length - 1)] ?? otherwise)?.focus({preventScroll: true});
}

// Where its row was made anew for the same group, what stands at its place there.
function inSameRow(opener) {
  const row = opener.closest('tr[data-group]');
  if (!row) return null;
  const again = document.querySelector(`tr[data-group="${CSS.escape(row.dataset.group)}"]`);
  const place = [...row.querySelectorAll(kFocusable)].indexOf(opener);
  return again?.querySelectorAll(kFocusable)[place];
}

// After a dialog: to what opened it, or what took its place.
export function giveBack(opener) {
  if (!opener || opener.isConnected) {
    if (opener && document.activeElement !== opener) opener.focus({preventScroll: true});
    return;
  }
  const label = opener.getAttribute('aria-label');
  const same = label &&
      [...document.querySelectorAll('[aria-label]')].find((one) => one.getAttribute('aria-label') === label);
  (same || inSameRow(opener) || document.getElementById('main')).focus({preventScroll: true});
}
