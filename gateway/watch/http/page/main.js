// The line on top, and the looking.

const PERIOD_MS = 1000; // between two looks

let lastAnswerAt = 0;
function showTop() {
  const silentMs = Date.now() - lastAnswerAt;
  const silent = lastAnswerAt === 0 ? false : silentMs > 4000;
  document.body.classList.toggle("stale", silent);
  const state = byId("state");
  if (lastAnswerAt === 0) return;
  const draining = model.snapshot.draining;
  setClass(state, silent ? "silent" : draining ? "draining" : "routing");
  setText(state, silent ? "no answer for " + ageText(silentMs) : draining ? "draining" : "routing");
  setText(byId("host"), location.host);
  setText(byId("uptime"), "up " + ageText(model.snapshot.uptime_seconds * 1000));
  setText(byId("version"), model.snapshot.version);
  setText(byId("clock"), clockText(model.snapshot.taken_ms));
  const wrong = model.list.filter((pipe) => pipe.raw.slow || pipe.raw.silent || pipe.dropping).length;
  document.title = silent ? "vek: no answer" : draining ? "vek: draining" : wrong ? `vek: ${wrong} slow, dropped or silent` : "vek";
  const colour = silent || wrong ? "%23d1372c" : draining ? "%23c98a1b" : "%233c9a63";
  const href = `data:image/svg+xml,<svg xmlns='http://www.w3.org/2000/svg' viewBox='0 0 16 16'><circle cx='8' cy='8' r='7' fill='${colour}'/></svg>`;
  if (byId("icon").getAttribute("href") !== href) byId("icon").setAttribute("href", href);
}

function showAll() {
  showFigures();
  showAttention();
  showTable(false);
  drawMap();
  showEvents();
  showSubscriptions();
  showGateway();
}

async function look() {
  const control = new AbortController();
  const limit = setTimeout(() => control.abort(), 5000);
  try {
    const answer = await fetch("/status.json", { cache: "no-store", signal: control.signal });
    if (answer.ok) {
      takeSnapshot(await answer.json());
      lastAnswerAt = Date.now();
      showAll();
    }
  } catch (error) { /* told by the line on top when it lasts */ } finally {
    clearTimeout(limit);
  }
  if (lastAnswerAt === 0) lastAnswerAt = -1;
}

async function keepLooking() {
  for (;;) {
    const start = performance.now();
    if (!document.hidden) { await look(); if (model.snapshot) showTop(); }
    await new Promise((wake) => { setTimeout(wake, Math.max(100, PERIOD_MS - (performance.now() - start))); });
  }
}

makeColumns();
recallView();
byId("filter").addEventListener("input", (event) => setFilter(event.target.value));
byId("scroller").addEventListener("scroll", showRows, { passive: true });
byId("rows").addEventListener("pointerenter", () => { view.pointerInside = true; });
byId("rows").addEventListener("pointerleave", () => { view.pointerInside = false; });
window.addEventListener("resize", () => { showRows(); if (model.snapshot) drawMap(); });
window.addEventListener("hashchange", recallView);
document.addEventListener("keydown", (event) => {
  if (event.key === "/" && document.activeElement !== byId("filter")) { event.preventDefault(); byId("filter").focus(); byId("filter").select(); }
  if (event.key === "Escape") { setFilter(""); select(""); }
});
keepLooking();
