// Elements of the document. Everything from the gateway enters it as text (textContent, attributes of numbers), never
// as markup.

const byId = (id) => document.getElementById(id);
function make(tag, className, text) {
  const element = document.createElement(tag);
  if (className) element.className = className;
  if (text !== undefined) element.textContent = text;
  return element;
}
function makeSvg(tag, attributes) {
  const element = document.createElementNS("http://www.w3.org/2000/svg", tag);
  for (const name in attributes) element.setAttribute(name, attributes[name]);
  return element;
}
function setText(element, text) { if (element.textContent !== text) element.textContent = text; }
function setClass(element, name) { if (element.className !== name) element.className = name; }
