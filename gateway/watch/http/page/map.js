// Who talks to whom.

const SINGLE_NODES = 64; // up to so many processes the drawing has a node for each
const MOST_NODES = 48; // and above it so many ids
const MOST_EDGES = 240;

const map = { nodes: new Map(), edges: [], members: "", chosenAt: 0, hover: "", chosen: new Set(), radius: 0, size: "" };

// Which node a process belongs to: itself, its id, or the rest.
function nodeOf(pipe) {
  if (map.single) return pipe.key;
  const id = String(pipe.raw.id);
  return map.chosen.has(id) ? id + "." : "others";
}

function chooseNodes() {
  map.single = model.list.length <= SINGLE_NODES;
  const now = Date.now();
  const rates = new Map();
  for (const pipe of model.list) {
    const id = String(pipe.raw.id);
    rates.set(id, (rates.get(id) || 0) + pipe.inRate + pipe.outRate + (pipe.raw.slow || pipe.raw.silent || pipe.dropping ? 1e12 : 0));
  }
  const gone = [...map.chosen].some((id) => !rates.has(id));
  if (!gone && now - map.chosenAt < 10000 && map.chosen.size === Math.min(rates.size, rates.size > MOST_NODES ? MOST_NODES - 1 : MOST_NODES)) return;
  map.chosenAt = now;
  const busiest = [...rates].sort((a, b) => b[1] - a[1] || a[0] - b[0]);
  map.chosen = new Set(busiest.slice(0, rates.size > MOST_NODES ? MOST_NODES - 1 : MOST_NODES).map((entry) => entry[0]));
}

function gatherNodes() {
  const nodes = new Map();
  for (const pipe of model.list) {
    const name = nodeOf(pipe);
    let node = nodes.get(name);
    if (!node) nodes.set(name, node = { name, rank: name === "others" ? 1e12 : map.single ? pipe.raw.id * 65536 + pipe.raw.handle : pipe.raw.id, count: 0, rate: 0, inRate: 0, outRate: 0, state: "idle" });
    node.count++;
    node.inRate += pipe.inRate;
    node.outRate += pipe.outRate;
    node.rate += pipe.inRate + pipe.outRate;
    if (STATE_RANK[pipe.state] > STATE_RANK[node.state]) node.state = pipe.state;
  }
  return nodes;
}

function gatherEdges() {
  const edges = new Map();
  for (const edge of model.edges.values()) {
    const from = nodeOf(model.pipes.get(edge.from)), to = nodeOf(model.pipes.get(edge.to));
    const name = from + ">" + to;
    let sum = edges.get(name);
    if (!sum) edges.set(name, sum = { from, to, rate: 0, slow: false });
    sum.rate += edge.rate;
    const { slow, silent } = model.pipes.get(edge.to).raw;
    sum.slow = sum.slow || slow || silent;
  }
  return [...edges.values()].sort((a, b) => b.slow - a.slow || b.rate - a.rate).slice(0, MOST_EDGES);
}

// An edge is as wide as its rate where it leaves and comes to a point where it arrives.
function edgePath(from, to, width) {
  if (from === to) {
    const out = -30 - 2 * width, x = from.x + from.ux * out, y = from.y + from.uy * out, px = -from.uy * 9, py = from.ux * 9;
    return `M${f1(from.x)} ${f1(from.y)}Q${f1(x + px)} ${f1(y + py)} ${f1(x)} ${f1(y)}Q${f1(x - px)} ${f1(y - py)} ${f1(from.x)} ${f1(from.y)}Z`;
  }
  const dx = to.x - from.x, dy = to.y - from.y, length = Math.hypot(dx, dy) || 1;
  const nx = -dy / length, ny = dx / length, h = width / 2;
  // the middle is drawn towards the centre of the ring and a little to the right, so that both directions can be seen
  const cx = (from.x + to.x) / 2 * 0.42 + nx * 7, cy = (from.y + to.y) / 2 * 0.42 + ny * 7;
  return `M${f1(from.x + nx * h)} ${f1(from.y + ny * h)}Q${f1(cx + nx * h * 0.7)} ${f1(cy + ny * h * 0.7)} ${f1(to.x)} ${f1(to.y)}` +
    `Q${f1(cx - nx * h * 0.7)} ${f1(cy - ny * h * 0.7)} ${f1(from.x - nx * h)} ${f1(from.y - ny * h)}Z`;
}
const f1 = (value) => value.toFixed(1);

function placeNodes(nodes, radius) {
  const sorted = [...nodes.values()].sort((a, b) => a.rank - b.rank);
  sorted.forEach((node, i) => {
    const angle = 2 * Math.PI * i / sorted.length - Math.PI / 2;
    Object.assign(node, { ux: Math.cos(angle), uy: Math.sin(angle), x: radius * Math.cos(angle), y: radius * Math.sin(angle), angle });
  });
  return sorted;
}

function makeNode(node, crowded) {
  const group = makeSvg("g", { class: "node", transform: `translate(${f1(node.x)} ${f1(node.y)})` });
  const circle = makeSvg("circle", { r: 3, class: "dot" }), reach = makeSvg("circle", { r: 13, class: "reach" });
  const text = makeSvg("text", { "dominant-baseline": "central" });
  const flip = node.ux < -0.001, degrees = node.angle * 180 / Math.PI;
  if (crowded) {
    text.setAttribute("transform", `rotate(${f1(flip ? degrees + 180 : degrees)}) translate(${flip ? -12 : 12} 0)`);
    text.setAttribute("text-anchor", flip ? "end" : "start");
  } else {
    text.setAttribute("x", f1(node.ux * 14));
    text.setAttribute("y", f1(node.uy * 14));
    text.setAttribute("text-anchor", Math.abs(node.ux) < 0.2 ? "middle" : flip ? "end" : "start");
  }
  text.textContent = node.name === "others" ? "others" : map.single ? node.name : node.name.slice(0, -1);
  group.append(circle, text, reach);
  group.addEventListener("pointerenter", () => { map.hover = node.name; showFocus(); });
  group.addEventListener("pointerleave", () => { map.hover = ""; showFocus(); });
  group.addEventListener("click", () => {
    if (map.single) { select(view.selected === node.name ? "" : node.name); setFilter(view.selected); }
    else if (node.name !== "others") setFilter(view.filter === node.name ? "" : node.name);
  });
  return { group, circle };
}

function drawMap() {
  const holder = byId("map");
  chooseNodes();
  const nodes = gatherNodes(), edges = gatherEdges();
  const width = holder.clientWidth || 400, height = Math.max(240, holder.clientHeight || 0);
  const crowded = nodes.size > 26;
  const radius = Math.max(80, Math.min(width, height) / 2 - (crowded ? (map.single ? 50 : 44) : 40));
  const sorted = placeNodes(nodes, radius);
  const members = sorted.map((node) => node.name).join(" ") + ` ${width}x${height}`;
  if (members !== map.members) { // positions change only with the set of nodes and the size of the drawing
    map.members = members;
    const svg = makeSvg("svg", { viewBox: `${-width / 2} ${-height / 2} ${width} ${height}`, role: "img" });
    map.edgeGroup = makeSvg("g", {});
    map.svg = svg;
    map.drawn = new Map(sorted.map((node) => [node.name, makeNode(node, crowded)]));
    svg.append(map.edgeGroup, ...[...map.drawn.values()].map((drawn) => drawn.group));
    holder.replaceChildren(svg);
  }
  map.nodes = nodes;
  map.edges = edges;
  drawEdges();
  const most = Math.max(1, ...sorted.map((node) => node.rate));
  for (const node of sorted) {
    const drawn = map.drawn.get(node.name);
    drawn.circle.setAttribute("r", f1(3 + 5.5 * Math.sqrt(node.rate / most)));
    drawn.base = "node " + (node.state === "busy" ? "live" : node.state);
  }
  map.svg.setAttribute("aria-label", `${plural(model.list.length, "process", "processes")}, ${plural(model.edges.size, "connection", "connections")} between them; the table tells the same`);
  const leftOut = model.snapshot.totals.edge_frames_left_out;
  const count = plural(model.edges.size, "connection", "connections") + (leftOut > 0 ? `, more with ${plural(leftOut, "message", "messages")} left out` : "");
  setText(byId("map-count"), map.single ? count : `${nodes.size} ids, ${count}`);
  showFocus();
}

function drawEdges() {
  const group = map.edgeGroup;
  const most = Math.max(20, ...map.edges.map((edge) => edge.rate));
  while (group.children.length > map.edges.length) group.lastChild.remove();
  while (group.children.length < map.edges.length) group.append(makeSvg("path", {}));
  map.edges.forEach((edge, i) => {
    const share = edge.rate / most, path = group.children[i];
    path.setAttribute("d", edgePath(map.nodes.get(edge.from), map.nodes.get(edge.to), edge.rate > 0 ? Math.max(edge.slow ? 4 : 1, 9 * Math.sqrt(share)) : edge.slow ? 4 : 1.2));
    edge.base = "edge" + (edge.slow ? " to-slow" : edge.rate > 0 ? "" : " idle");
    edge.opacity = edge.slow ? 0.9 : edge.rate > 0 ? 0.22 + 0.6 * share : 0.7;
  });
}

// Hovering shows the neighbours of a node; a selected process keeps them shown.
function focusName() {
  if (map.hover && map.nodes.has(map.hover)) return map.hover;
  const pipe = model.pipes.get(view.selected);
  return pipe ? nodeOf(pipe) : "";
}
function showFocus() {
  if (!map.svg) return;
  const name = focusName();
  setClass(byId("map"), name ? "focus" : "");
  const near = new Set([name]);
  map.edges.forEach((edge, i) => {
    const touches = name !== "" && (edge.from === name || edge.to === name);
    if (touches) near.add(edge.from).add(edge.to);
    const path = map.edgeGroup.children[i];
    path.setAttribute("class", edge.base + (touches ? " near" : ""));
    if (name) path.removeAttribute("opacity"); else path.setAttribute("opacity", edge.opacity.toFixed(2));
  });
  for (const [node, drawn] of map.drawn) if (drawn.base) drawn.group.setAttribute("class", drawn.base + (name && near.has(node) ? " near" : ""));
  showCaption(name);
}

function peersText(name, mine, theirs) {
  const peers = map.edges.filter((edge) => edge[mine] === name).sort((a, b) => b.rate - a.rate);
  if (!peers.length) return "nobody";
  const shown = peers.slice(0, 8).map((edge) => edge[theirs].replace(/\.$/, "") + " (" + rateText(edge.rate) + "/s)");
  return shown.join(", ") + (peers.length > 8 ? ` and ${grouped(peers.length - 8)} more` : "");
}
function line(title, words) {
  const div = make("div");
  div.append(make("b", "", title), document.createTextNode(" " + words));
  return div;
}
// Who talks to whom is counted only while somebody looks, and this page may have been opened late.
function nobodyText() {
  return model.snapshot.totals.frames_in === 0 ? "Nobody has talked to anybody yet."
    : "Nobody has talked to anybody since this page was opened.";
}
function showCaption(name) {
  const caption = byId("caption"), node = map.nodes.get(name);
  if (!node) {
    caption.replaceChildren(make("div", "", model.list.length === 0 ? "No process has registered."
      : map.edges.length === 0 ? nobodyText() : "An edge is wide where it leaves and pointed where it arrives. Select a process to see its neighbours."));
    return;
  }
  const lines = [];
  const pipe = model.pipes.get(name);
  if (pipe) {
    const held = model.snapshot.subscriptions.filter((s) => s.id === pipe.raw.id && s.handle === pipe.raw.handle);
    lines.push(line(name, `${pipe.raw.address}, up since ${new Date(pipe.raw.since_ms).toLocaleString()}, last heard ${ageText(pipe.raw.silent_ms)} ago`));
    if (held.length) lines.push(line("subscribes to", held.slice(0, 12).map((s) => String(s.command)).join(", ") + (held.length > 12 ? ` and ${held.length - 12} more` : "")));
  } else {
    lines.push(line(name === "others" ? "others" : "id " + name.slice(0, -1), `${plural(node.count, "process", "processes")}, ${rateText(node.inRate)}/s in, ${rateText(node.outRate)}/s out`));
  }
  lines.push(line("sends to", peersText(name, "from", "to")), line("hears from", peersText(name, "to", "from")));
  caption.replaceChildren(...lines);
}
