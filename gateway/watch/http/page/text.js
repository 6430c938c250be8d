// Figures as text.

const grouped = (value) => Math.round(value).toString().replace(/\B(?=(\d{3})+$)/g, "\u2009");
function scaled(value, step, units) {
  let unit = 0;
  while (Math.abs(value) >= step * 0.9995 && unit < units.length - 1) { value /= step; unit++; }
  const digits = unit === 0 || Math.abs(value) >= 99.95 ? 0 : Math.abs(value) >= 9.995 ? 1 : 2;
  return [value.toFixed(digits), units[unit]];
}
function rateText(perSecond) {
  if (perSecond === 0) return "0";
  if (perSecond < 0.95) return perSecond < 0.05 ? "<\u20090.1" : perSecond.toFixed(1);
  if (perSecond < 10000) return grouped(perSecond);
  return scaled(perSecond, 1000, ["", "k", "M", "G"]).join("\u2009");
}
const bytesPair = (bytes) => scaled(bytes, 1024, ["B", "KiB", "MiB", "GiB", "TiB"]);
const bytesText = (bytes) => bytesPair(bytes).join("\u2009");
function ageText(ms) {
  const s = Math.max(0, Math.floor(ms / 1000));
  if (s < 100) return s + "\u2009s";
  const m = Math.floor(s / 60);
  if (m < 60) return m + "\u2009m " + String(s % 60).padStart(2, "0") + "\u2009s";
  const h = Math.floor(m / 60);
  if (h < 48) return h + "\u2009h " + String(m % 60).padStart(2, "0") + "\u2009m";
  return Math.floor(h / 24) + "\u2009d " + (h % 24) + "\u2009h";
}
function secondsPair(seconds) {
  if (seconds < 1e-3) return [(seconds * 1e6).toFixed(0), "\u00b5s"];
  return seconds < 1 ? [scaledMs(seconds * 1e3), "ms"] : [seconds.toFixed(1), "s"];
}
const scaledMs = (ms) => ms < 10 ? ms.toFixed(1).replace(".0", "") : ms.toFixed(0);
const clockText = (ms) => new Date(ms).toTimeString().slice(0, 8);
const plural = (count, one, many) => grouped(count) + " " + (count === 1 ? one : many);
