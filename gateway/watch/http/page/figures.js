// Figures.

const HISTORY = 150; // points of a sparkline

const figureParts = {};
function figure(name, label) {
  const box = make("div", "figure");
  const dt = make("dt", "", label), dd = make("dd");
  const value = make("span", "value"), unit = make("span", "unit");
  const more = make("div", "more");
  const svg = makeSvg("svg", { viewBox: `0 0 ${HISTORY - 1} 26`, preserveAspectRatio: "none", "aria-hidden": "true" });
  const area = makeSvg("path", { class: "spark-area" }), line = makeSvg("path", { class: "spark-line" });
  svg.append(area, line);
  dd.append(value, unit, more);
  box.append(svg, dt, dd);
  byId("figures").append(box);
  figureParts[name] = { box, value, unit, more, area, line };
}
[["in", "Frames in"], ["out", "Frames out"], ["bytes", "Throughput"], ["queue", "Queued"], ["pipes", "Processes"],
 ["slow", "Slow"], ["dropped", "Dropped"], ["latency", "Loop, 99th percentile"]].forEach(([name, label]) => figure(name, label));

function showFigure(name, [value, unit], more, point, alarm, floor) {
  const part = figureParts[name];
  setText(part.value, value);
  setText(part.unit, unit);
  setText(part.more, more);
  setClass(part.box, alarm ? "figure alarm" : "figure");
  const points = model.history[name] = model.history[name] || [];
  if (model.total.samples.length > 1) points.push(point); // the first snapshot gives no rate
  if (points.length > HISTORY) points.shift();
  const most = Math.max(floor || 0, ...points);
  if (most <= 0 || points.length < 2) { part.area.removeAttribute("d"); part.line.removeAttribute("d"); return; }
  const start = HISTORY - points.length;
  const path = points.map((p, i) => (i ? "L" : "M") + (start + i) + " " + (25 - 22 * p / most).toFixed(1)).join("");
  part.line.setAttribute("d", path);
  part.area.setAttribute("d", path + `L${HISTORY - 1} 26L${start} 26Z`);
}
const ratePair = (perSecond) => { const text = rateText(perSecond).split("\u2009"); return text.length === 2 && /[kMG]/.test(text[1]) ? [text[0], text[1] + "/s"] : [rateText(perSecond), "/s"]; };

function showFigures() {
  const { totals } = model.snapshot;
  const [inRate, outRate, inBytes, outBytes, dropRate] = model.total.rates();
  const slow = model.list.filter((pipe) => pipe.raw.slow).length;
  const held = model.list.filter((pipe) => pipe.raw.held).length;
  showFigure("in", ratePair(inRate), grouped(totals.frames_in) + " since start", inRate);
  showFigure("out", ratePair(outRate), grouped(totals.frames_out) + " since start", outRate);
  const [value, unit] = bytesPair(inBytes + outBytes);
  showFigure("bytes", [value, unit + "/s"], bytesText(inBytes) + "/s in, " + bytesText(outBytes) + "/s out", inBytes + outBytes);
  const full = totals.queue_bytes / Math.max(1, totals.queue_limit_bytes);
  showFigure("queue", bytesPair(totals.queue_bytes), (100 * full).toFixed(full < 0.1 ? 1 : 0) + " % of " + bytesText(totals.queue_limit_bytes), totals.queue_bytes, full > 0.8);
  const refused = totals.connections_refused ? ", " + grouped(totals.connections_refused) + " turned away" : "";
  const waiting = totals.unregistered ? ", " + grouped(totals.unregistered) + " not registered" : "";
  showFigure("pipes", [grouped(totals.pipes), ""], "of " + grouped(totals.pipes_limit) + waiting + refused, totals.pipes, totals.pipes >= totals.pipes_limit);
  showFigure("slow", [grouped(slow), ""], held ? plural(held, "sender held", "senders held") : "no sender held", slow, slow > 0, 1);
  showFigure("dropped", ratePair(dropRate), grouped(model.dropped) + " since start", dropRate, dropRate > 0);
  const p99 = latencyQuantile(0.99), median = latencyQuantile(0.5);
  showFigure("latency", p99 ? [(p99.above ? ">\u2009" : "\u2264\u2009") + secondsPair(p99.seconds)[0], secondsPair(p99.seconds)[1]] : ["\u2013", ""],
    median ? "median \u2264\u2009" + secondsPair(median.seconds).join("\u2009") : "nothing routed", p99 ? p99.seconds : 0, p99 && p99.seconds >= 0.1);
}
