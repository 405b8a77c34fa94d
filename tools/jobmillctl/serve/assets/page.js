// The page as the server writes it is complete. This fetches it again every few seconds and puts the
// new contents in the place of the old, so that what is typed and where the page is scrolled stays.
// When the server does not answer, what was seen last stays, with the time at which it was seen.
'use strict';

const pause = 5000;
const patience = 10000;
let seen = new Date();

function isSelecting() {
  const selection = document.getSelection();
  return selection !== null && !selection.isCollapsed;
}

async function update() {
  const silent = document.getElementById('silent');
  try {
    const reply = await fetch(location.href, {signal: AbortSignal.timeout(patience)});
    const fresh = new DOMParser().parseFromString(await reply.text(), 'text/html');
    const main = fresh.querySelector('main');
    if (main === null) throw new Error(reply.statusText);
    seen = new Date();
    silent.hidden = true;
    if (!isSelecting()) document.querySelector('main').replaceWith(main);
  } catch {
    silent.textContent =
        `The server has not answered since ${seen.toLocaleTimeString()}. What follows was seen then.`;
    silent.hidden = false;
  }
}

async function updateForEver() {
  for (;;) {
    await new Promise((resolve) => setTimeout(resolve, pause));
    if (!document.hidden) await update();
  }
}

updateForEver();
