// Table of processes.

const ROW = 24; // height of a table row, as --row

const STATE_RANK = { slow: 5, drop: 4, silent: 3, held: 2, busy: 1, idle: 0 };
const STATE_TEXT = { slow: "slow", drop: "dropped", silent: "silent", held: "held", busy: "busy", idle: "idle" };
const COLUMNS = [
  { name: "state", label: "state", css: "c-state w-mark", value: (p) => STATE_RANK[p.state], down: true },
  { name: "process", label: "process", css: "c-process w-process", value: (p) => p.raw.id * 65536 + p.raw.handle, down: false },
  { name: "address", label: "address", css: "c-address w-address", value: (p) => addressRank(p.raw.address), down: false },
  { name: "in", label: "in /s", css: "c-in n w-rate", value: (p) => p.inRate, down: true },
  { name: "out", label: "out /s", css: "c-out n w-rate", value: (p) => p.outRate, down: true },
  { name: "bytes", label: "bytes /s", css: "c-bytes n w-bytes", value: (p) => p.byteRate, down: true },
  { name: "queue", label: "queue", css: "c-queue n", value: (p) => p.raw.queue_bytes, down: true },
  { name: "dropped", label: "dropped", css: "c-dropped n w-drop", value: (p) => p.raw.dropped, down: true },
  { name: "silent", label: "silent", css: "c-silent n w-age", value: (p) => p.raw.silent_ms, down: true },
  { name: "since", label: "up", css: "c-since n w-age", value: (p) => model.snapshot.taken_ms - p.raw.since_ms, down: true },
];
const CHOICES = [["", "all"], ["slow", "slow"], ["silent", "silent"], ["held", "held"], ["dropped", "dropped"], ["busy", "busy"]];
const view = { sort: "state", down: true, filter: "", selected: "", order: [], pointerInside: false, rows: [] };

function addressRank(address) {
  const parts = address.split(/[.:]/);
  return parts.reduce((sum, part) => sum * (part === parts[4] ? 65536 : 256) + Number(part), 0);
}

// A word that names a state takes the processes in it; any other is the beginning of an id, or of an address if it has
// a dot: 12 is meant for ids and not for all of 127.0.0.1.
function matches(pipe, words) {
  return words.every((word) => {
    switch (word) {
    case "slow": return pipe.raw.slow;
    case "silent": return pipe.raw.silent;
    case "held": return pipe.raw.held;
    case "dropped": return pipe.raw.dropped > 0;
    case "busy": return pipe.inRate + pipe.outRate > 0;
    case "idle": return pipe.inRate + pipe.outRate === 0 && !pipe.raw.silent;
    default: return pipe.key.startsWith(word) || (word.includes(".") && pipe.raw.address.startsWith(word));
    }
  });
}

function orderRows(force) {
  const words = view.filter.toLowerCase().split(/\s+/).filter((word) => word);
  const wanted = words.length ? model.list.filter((pipe) => matches(pipe, words)) : model.list;
  const settled = view.order.length === wanted.length && wanted.every((pipe) => view.orderSet.has(pipe.key));
  if (!force && settled && view.pointerInside) return; // rows must not run away from the pointer
  const column = COLUMNS.find((c) => c.name === view.sort);
  const sign = view.down ? -1 : 1;
  // among equals the busier come first, by steps so wide that they do not change places all the time
  const keyed = wanted.map((pipe) => [column.value(pipe), Math.round(2 * Math.log2(1 + pipe.inRate + pipe.outRate)), pipe]);
  keyed.sort((a, b) => sign * (a[0] - b[0]) || b[1] - a[1] || a[2].raw.id - b[2].raw.id || a[2].raw.handle - b[2].raw.handle);
  view.order = keyed.map((entry) => entry[2].key);
  view.orderSet = new Set(view.order);
}

function makeRow() {
  const tr = make("tr", "row");
  const cells = {};
  for (const column of COLUMNS) {
    cells[column.name] = make("td", column.css.replace(/w-\S+/, ""));
    tr.append(cells[column.name]);
  }
  cells.state.classList.add("mark");
  cells.process.classList.add("process");
  const button = make("button");
  button.type = "button";
  const id = make("span"), handle = make("span", "handle");
  button.append(id, handle);
  cells.process.append(button);
  const bar = make("span", "bar"), fill = make("i"), queueText = make("span", "queue-text");
  bar.append(fill);
  cells.queue.append(bar, queueText);
  const row = { tr, cells, id, handle, bar, fill, queueText, key: "" };
  tr.addEventListener("click", () => select(view.selected === row.key ? "" : row.key));
  return row;
}

function fillRow(row, pipe, index) {
  const { raw } = pipe;
  row.key = pipe.key;
  row.tr.setAttribute("aria-rowindex", index + 2);
  row.tr.setAttribute("aria-selected", pipe.key === view.selected ? "true" : "false");
  row.tr.dataset.key = pipe.key;
  setClass(row.tr, "row " + pipe.state);
  setText(row.cells.state, STATE_TEXT[pipe.state]);
  setText(row.id, String(raw.id));
  setText(row.handle, "." + raw.handle);
  setText(row.cells.address, raw.address);
  setText(row.cells.in, rateText(pipe.inRate));
  setText(row.cells.out, rateText(pipe.outRate));
  setText(row.cells.bytes, bytesText(pipe.byteRate));
  const share = raw.queue_bytes / Math.max(1, raw.queue_limit_bytes);
  row.fill.style.width = raw.queue_bytes ? Math.max(1.5, Math.min(100, 100 * share)) + "%" : "0";
  setClass(row.bar, raw.queue_bytes ? "bar some" : "bar");
  setClass(row.fill, raw.slow || share > 0.8 ? "full" : share > 0.5 ? "half" : "");
  setText(row.queueText, raw.queue_bytes ? bytesText(raw.queue_bytes) : "0");
  setText(row.cells.dropped, grouped(raw.dropped));
  row.cells.dropped.classList.toggle("text-bad", raw.dropped > 0);
  row.cells.dropped.classList.toggle("quiet", raw.dropped === 0);
  row.queueText.classList.toggle("quiet", raw.queue_bytes === 0);
  row.cells.in.classList.toggle("quiet", pipe.inRate === 0);
  row.cells.out.classList.toggle("quiet", pipe.outRate === 0);
  row.cells.bytes.classList.toggle("quiet", pipe.byteRate === 0);
  setText(row.cells.silent, ageText(raw.silent_ms));
  setText(row.cells.since, ageText(model.snapshot.taken_ms - raw.since_ms));
}

const above = make("tr"), below = make("tr");
const aboveCell = make("td", "spacer"), belowCell = make("td", "spacer");
above.append(aboveCell);
below.append(belowCell);
above.setAttribute("aria-hidden", "true");
below.setAttribute("aria-hidden", "true");

// Only the rows that can be seen exist; two empty ones stand for the rest.
function showRows() {
  if (!model.snapshot) return;
  const scroller = byId("scroller"), body = byId("rows");
  const order = view.order.filter((key) => model.pipes.has(key));
  const fit = Math.ceil(scroller.clientHeight / ROW) + 6;
  const first = Math.max(0, Math.min(Math.floor(scroller.scrollTop / ROW) - 3, order.length - fit));
  const count = Math.min(fit, order.length - first);
  while (view.rows.length < count) view.rows.push(makeRow());
  for (let i = 0; i < count; i++) fillRow(view.rows[i], model.pipes.get(order[first + i]), first + i);
  if (body.children.length !== count + 2) body.replaceChildren(above, ...view.rows.slice(0, count).map((row) => row.tr), below);
  aboveCell.style.height = first * ROW + "px";
  belowCell.style.height = Math.max(0, order.length - first - count) * ROW + "px";
  byId("table").setAttribute("aria-rowcount", order.length + 1);
  byId("none").hidden = order.length > 0;
  setText(byId("none"), model.list.length ? "No process matches." : "No process has registered.");
  setText(byId("shown"), order.length === model.list.length ? plural(order.length, "process", "processes")
    : grouped(order.length) + " of " + plural(model.list.length, "process", "processes"));
}

function showTable(force) { if (model.snapshot) { orderRows(force); showRows(); } }

function makeColumns() {
  for (const column of COLUMNS) {
    const th = make("th", column.css);
    th.scope = "col";
    const button = make("button", "", column.label);
    button.type = "button";
    button.addEventListener("click", () => {
      view.down = view.sort === column.name ? !view.down : column.down;
      view.sort = column.name;
      showSort();
      rememberView();
      showTable(true);
    });
    th.append(button);
    th.dataset.column = column.name;
    byId("columns").append(th);
  }
  for (const [word, label] of CHOICES) {
    const button = make("button", "", label);
    button.type = "button";
    button.dataset.word = word;
    button.addEventListener("click", () => setFilter(word));
    byId("choices").append(button);
  }
}
function showSort() {
  for (const th of byId("columns").children) {
    if (th.dataset.column === view.sort) th.setAttribute("aria-sort", view.down ? "descending" : "ascending");
    else th.removeAttribute("aria-sort");
  }
}
function setFilter(text) {
  view.filter = text;
  if (byId("filter").value !== text) byId("filter").value = text;
  for (const button of byId("choices").children) button.setAttribute("aria-pressed", button.dataset.word === text.trim() ? "true" : "false");
  byId("scroller").scrollTop = 0;
  rememberView();
  showTable(true);
}
function select(key) {
  view.selected = key;
  showRows();
  showFocus();
}

// The address line keeps the view, so that a wall can be given one and a reload shows the same.
function rememberView() {
  const words = new URLSearchParams();
  if (view.sort !== "state" || !view.down) words.set("sort", (view.down ? "-" : "") + view.sort);
  if (view.filter) words.set("filter", view.filter);
  history.replaceState(null, "", "#" + words);
}
function recallView() {
  const words = new URLSearchParams(location.hash.slice(1));
  const sort = words.get("sort") || "-state";
  const name = sort.replace(/^-/, "");
  if (COLUMNS.some((column) => column.name === name)) { view.sort = name; view.down = sort.startsWith("-"); }
  setFilter(words.get("filter") || "");
  showSort();
}
