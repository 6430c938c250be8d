// Rates from successive snapshots.

const RATE_WINDOW_MS = 3200; // rates are means over this long, so that they can be read
const DROP_MARK_MS = 60000; // a drop marks its process for this long

// Counters of one thing over the last RATE_WINDOW_MS.
class Track {
  constructor() { this.samples = []; }
  add(time, values) {
    this.samples.push({ time, values });
    while (this.samples.length > 2 && time - this.samples[1].time >= RATE_WINDOW_MS) this.samples.shift();
  }
  rates() {
    const last = this.samples[this.samples.length - 1];
    const first = this.samples[0];
    const seconds = (last.time - first.time) / 1000;
    return last.values.map((value, i) => seconds > 0 ? Math.max(0, (value - first.values[i]) / seconds) : 0);
  }
}

const model = {
  snapshot: null, startedMs: 0, total: new Track(), latency: new Track(),
  pipes: new Map(),     // "id.handle" -> what is shown of the process
  edges: new Map(),     // "id.handle>id.handle" -> Track and rate
  list: [],             // pipes in the order of the snapshot
  history: {},          // figure -> points
};

const keyOf = (pipe) => pipe.id + "." + pipe.handle;

function takePipe(raw, now) {
  const key = keyOf(raw);
  let pipe = model.pipes.get(key);
  if (!pipe || pipe.raw.since_ms !== raw.since_ms) {
    pipe = { key, track: new Track(), droppedAt: 0, raw };
  } else if (raw.dropped > pipe.raw.dropped) {
    pipe.droppedAt = now;
  }
  pipe.raw = raw;
  pipe.track.add(now, [raw.frames_in, raw.frames_out, raw.bytes_in + raw.bytes_out]);
  [pipe.inRate, pipe.outRate, pipe.byteRate] = pipe.track.rates();
  pipe.dropping = pipe.droppedAt > 0 && now - pipe.droppedAt < DROP_MARK_MS;
  pipe.state = raw.slow ? "slow" : pipe.dropping ? "drop" : raw.silent ? "silent" : raw.held ? "held" : pipe.inRate + pipe.outRate > 0 ? "busy" : "idle";
  return pipe;
}

function takeEdges(snapshot, now) {
  const edges = new Map();
  for (const raw of snapshot.edges) {
    const from = model.list[raw.from], to = model.list[raw.to];
    if (!from || !to) continue;
    const key = from.key + ">" + to.key;
    let edge = model.edges.get(key);
    const before = edge && edge.track.samples[edge.track.samples.length - 1];
    if (!edge || before.values[0] > raw.frames) edge = { from: from.key, to: to.key, track: new Track() };
    edge.track.add(now, [raw.frames]);
    edge.rate = edge.track.rates()[0];
    edges.set(key, edge);
  }
  model.edges = edges;
}

function takeSnapshot(snapshot) {
  const now = snapshot.taken_ms;
  if (snapshot.started_ms !== model.startedMs) { // another gateway than before: nothing can be compared
    Object.assign(model, { startedMs: snapshot.started_ms, total: new Track(), latency: new Track(), pipes: new Map(), edges: new Map(), history: {} });
  }
  model.snapshot = snapshot;
  const pipes = new Map();
  model.list = snapshot.pipes.map((raw) => takePipe(raw, now));
  for (const pipe of model.list) pipes.set(pipe.key, pipe);
  model.pipes = pipes;
  takeEdges(snapshot, now);
  const totals = snapshot.totals;
  const sum = (object) => Object.values(object).reduce((a, b) => a + b, 0);
  model.dropped = sum(snapshot.drops);
  model.total.add(now, [totals.frames_in, totals.frames_out, totals.bytes_in, totals.bytes_out, model.dropped]);
  model.latency.add(now, snapshot.loop_latency.counts);
}

// The bound below which a share of the turns of the last seconds stayed; null when there were none.
function latencyQuantile(share) {
  const bounds = model.snapshot.loop_latency.bounds_seconds;
  const rates = model.latency.rates();
  const all = rates.reduce((a, b) => a + b, 0);
  if (all === 0) return null;
  let upTo = 0;
  for (let i = 0; i < bounds.length; i++) {
    upTo += rates[i];
    if (upTo >= share * all) return { seconds: bounds[i], above: false };
  }
  return { seconds: bounds[bounds.length - 1], above: true };
}
