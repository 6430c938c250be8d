// Lists below.

let shownEvents = "", shownSubscriptions = "";
function showEvents() {
  const events = model.snapshot.events;
  const last = events.length ? events[events.length - 1].number : 0;
  setText(byId("event-count"), events.length ? "newest first" : "");
  const mark = model.startedMs + ":" + last;
  if (mark === shownEvents) return;
  shownEvents = mark;
  const rows = events.slice().reverse().map((event) => {
    const tr = make("tr", event.level);
    const when = make("td", "when", clockText(event.when_ms));
    when.title = new Date(event.when_ms).toLocaleString();
    const level = make("td"), dot = make("span", "level");
    dot.title = event.level;
    level.append(dot, make("span", "sr", event.level));
    const text = make("td", "text");
    text.append(make("div", "", event.text));
    tr.append(when, level, text);
    return tr;
  });
  if (!rows.length) { const tr = make("tr"); tr.append(make("td", "quiet", "Nothing has happened yet.")); rows.push(tr); }
  byId("event-rows").replaceChildren(...rows);
}

function showSubscriptions() {
  const list = model.snapshot.subscriptions, total = model.snapshot.totals.subscriptions;
  const commands = new Map();
  for (const s of list) {
    if (!commands.has(s.command)) commands.set(s.command, []);
    commands.get(s.command).push(`${s.id}.${s.handle}.${s.module}.${s.task}`);
  }
  setText(byId("subscription-count"), total ? `${grouped(total)} to ${plural(commands.size, "command", "commands")}` : "");
  const sorted = [...commands].sort((a, b) => b[1].length - a[1].length || a[0] - b[0]);
  const mark = JSON.stringify(sorted.map(([command, who]) => [command, who.length, who.slice(0, 20)]));
  if (mark === shownSubscriptions) return;
  shownSubscriptions = mark;
  const rows = sorted.slice(0, 300).map(([command, who]) => {
    const tr = make("tr"), cell = make("td", "", String(command));
    cell.title = "0x" + command.toString(16);
    tr.append(cell, make("td", "n", grouped(who.length)), make("td", "who", who.slice(0, 20).join(", ")));
    tr.lastChild.title = who.slice(0, 200).join(", ");
    return tr;
  });
  if (sorted.length > 300) { const tr = make("tr"), cell = make("td", "quiet", `and ${grouped(sorted.length - 300)} more commands`); cell.colSpan = 3; tr.append(cell); rows.push(tr); }
  if (!rows.length) { const tr = make("tr"), cell = make("td", "quiet", "Nobody subscribes to anything."); cell.colSpan = 3; tr.append(cell); rows.push(tr); }
  byId("subscription-rows").replaceChildren(...rows);
}

const STATUS_TEXT = { "0": "accepted", "-1": "refused, draining (-1)", "-8": "refused, not allowed (-8)", "-9": "refused, already up (-9)", "-10": "refused, full (-10)" };
function showPairs(id, pairs) {
  const list = byId(id);
  while (list.children.length > pairs.length * 2) list.lastChild.remove();
  while (list.children.length < pairs.length * 2) list.append(make("dt"), make("dd"));
  pairs.forEach(([name, value, css], i) => {
    setText(list.children[2 * i], name);
    setText(list.children[2 * i + 1], value);
    setClass(list.children[2 * i], css || "");
    setClass(list.children[2 * i + 1], css || "");
  });
}
function showGateway() {
  const { drops, registrations, settings } = model.snapshot;
  showPairs("drops", Object.entries(drops).map(([name, count]) => [name.replace(/_/g, " "), grouped(count), count ? "text-bad" : "quiet"]));
  showPairs("registrations", Object.entries(registrations).map(([status, count]) => [STATUS_TEXT[status] || "status " + status, grouped(count), count && status !== "0" ? "text-held" : count ? "" : "quiet"]));
  showPairs("settings", Object.entries(settings));
  showLatency();
}

function showLatency() {
  const { counts, bounds_seconds: bounds } = model.snapshot.loop_latency;
  const holder = byId("latency");
  if (!holder.querySelector("svg")) {
    const svg = makeSvg("svg", { viewBox: `0 0 ${counts.length * 10} 46`, preserveAspectRatio: "none", role: "img" });
    counts.forEach((_, i) => svg.append(makeSvg("rect", { x: i * 10 + 0.6, width: 8.8 })));
    const axis = make("div", "axis");
    [0, 3, 6, 9, 11].forEach((i) => axis.append(make("span", "", "\u2264\u2009" + secondsPair(bounds[i]).join("\u2009"))));
    axis.append(make("span", "", ">\u2009" + secondsPair(bounds[bounds.length - 1]).join("\u2009")));
    holder.append(svg, axis);
  }
  const rates = model.latency.rates(), most = Math.max(...rates), svg = holder.querySelector("svg");
  rates.forEach((rate, i) => { // the height is a logarithm: one turn in a thousand must be seen
    const height = rate > 0 ? 4 + 41 * Math.max(0, 1 + Math.log10(rate / most) / 4) : 1;
    const rect = svg.children[i];
    rect.setAttribute("height", f1(height));
    rect.setAttribute("y", f1(46 - height));
    rect.setAttribute("class", rate > 0 ? "" : "rest");
  });
  svg.setAttribute("aria-label", "How long the turns of the routing loop took in the last seconds, on a logarithmic scale");
}
