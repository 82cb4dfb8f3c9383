'use strict';
// Search and copying; all that there is to read is there without it.
const boxes = Array.from(document.querySelectorAll('[data-words]'));
const search = document.querySelector('input[type=search]');
const only = document.querySelector('#only');
const found = document.querySelector('#found');

function choose() {
  const words = search.value.toLowerCase().split(/\s+/).filter(Boolean);
  const troubled = only.getAttribute('aria-pressed') === 'true';
  const all = words.length === 0 && !troubled;
  let count = 0;
  for (const box of boxes) {
    const fits = !all && words.every((word) => box.dataset.words.includes(word)) &&
      (!troubled || box.dataset.level >= 2);
    count += fits ? 1 : 0;
    box.classList.toggle('found', fits);
    box.classList.toggle('away', !all && !fits);
  }
  if (!all) {
    // What is found is seen in what it is contained in.
    for (const box of boxes.filter((one) => one.classList.contains('found'))) {
      for (let above = box.parentElement; above !== null; above = above.parentElement) {
        above.classList.remove('away');
        if (above.tagName === 'DETAILS') { above.open = true; }
      }
    }
  }
  found.textContent = all ? '' : count + ' found';
}

async function copy(button) {
  const text = button.textContent;
  try {
    await navigator.clipboard.writeText(text);
  } catch {
    // A page from a file may not have the clipboard: select it, for the hand to copy.
    const range = document.createRange();
    range.selectNodeContents(button);
    const selection = window.getSelection();
    selection.removeAllRanges();
    selection.addRange(range);
    document.execCommand('copy');
  }
  button.classList.add('copied');
  setTimeout(() => button.classList.remove('copied'), 1200);
}

search.addEventListener('input', choose);
search.form.addEventListener('submit', (event) => event.preventDefault());
only.addEventListener('click', () => {
  only.setAttribute('aria-pressed', String(only.getAttribute('aria-pressed') !== 'true'));
  choose();
});
document.addEventListener('click', (event) => {
  const button = event.target.closest('button.serial');
  if (button !== null) { event.preventDefault(); copy(button); }
});
window.addEventListener('beforeprint', () => {
  for (const box of document.querySelectorAll('details')) { box.open = true; }
});
// #search=HDD3 opens the page as it is after such a search.
if (location.hash.startsWith('#search=')) {
  search.value = decodeURIComponent(location.hash.slice(8));
  choose();
}
