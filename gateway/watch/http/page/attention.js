// What wants attention.

let shownNotices = "";
function notices() {
  const found = [];
  const slow = model.list.filter((pipe) => pipe.raw.slow).sort((a, b) => b.raw.queue_bytes - a.raw.queue_bytes);
  for (const pipe of slow.slice(0, 3)) {
    found.push(["error", `${pipe.key} is slow, ${bytesText(pipe.raw.queue_bytes)} of ${bytesText(pipe.raw.queue_limit_bytes)} wait for it`, pipe.key]);
  }
  if (slow.length > 3) found.push(["error", grouped(slow.length - 3) + " more are slow", "slow"]);
  const dropping = model.list.filter((pipe) => pipe.dropping);
  if (dropping.length) found.push(["error", `frames dropped for ${dropping.length === 1 ? dropping[0].key : plural(dropping.length, "process", "processes")} in the last minute`, "dropped"]);
  const silent = model.list.filter((pipe) => pipe.raw.silent);
  if (silent.length === 1) found.push(["error", `${silent[0].key} does not answer, its last byte came ${ageText(10000 * Math.floor(silent[0].raw.silent_ms / 10000))} ago`, silent[0].key]);
  if (silent.length > 1) found.push(["error", plural(silent.length, "process does", "processes do") + " not answer", "silent"]);
  const held = model.list.filter((pipe) => pipe.raw.held);
  if (held.length) found.push(["warning", plural(held.length, "sender is", "senders are") + " held back", "held"]);
  if (model.snapshot.draining) found.push(["warning", "the gateway shuts down and takes no new process", ""]);
  return found;
}
function showAttention() {
  const found = notices();
  const text = JSON.stringify(found);
  if (text === shownNotices) return;
  shownNotices = text;
  const list = byId("attention");
  list.replaceChildren();
  for (const [level, words, wanted] of found) {
    const item = make("li", level);
    const button = make("button", "", words);
    button.type = "button";
    button.addEventListener("click", () => { setFilter(wanted); if (model.pipes.has(wanted)) select(wanted); });
    item.append(button);
    list.append(item);
  }
  if (!found.length) list.append(make("li", "", "Nothing is slow, nothing is being dropped, everybody answers."));
}
