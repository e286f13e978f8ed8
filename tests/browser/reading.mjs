// SPDX-License-Identifier: MIT
// What somebody does on the page, and what changes on it by that, as the files *.golden tell it:
//
//   # a rule
//   page [width=PIXELS] [height=PIXELS] [zone=ZONE] [hash=HASH] [only=KINDS] [chain=NAME]
//     NAME SECOND PROCESS.NUMBER [cause=NAME] [node=ADDRESS] [product=NAME] [says=TEXT] [details=TEXT] [value=TEXT] [id=ID]
//   $ what is done
//
// and below each what it makes of the page: all lines of a new one (=), then those that go (-) and those that come (+).
// A blank in a text is "_". "again" is a page of the incidents before; many, lanes and fans add incidents (see MORE).
import {readFileSync, writeFileSync} from 'node:fs';

/* Before the page: its timers run when all else is done, and the overview is where it is with any font. */
const prepare = () => {
  const real = window.setTimeout, held = new Map();
  let last = 0;
  window.setTimeout = (work, _, ...values) => {
    held.set(++last, () => work(...values));
    return last;
  };
  window.clearTimeout = number => held.delete(number);
  const frame = () => new Promise(done => requestAnimationFrame(() => real(done, 0)));
  window.settle = async () => {
    await frame();
    await frame();
    for (const [number, work] of held) if (held.delete(number)) work();
    await frame();
  };
  const style = new CSSStyleSheet();
  style.replaceSync('.overview {position: fixed; left: 100px; top: 0; width: 800px}');
  document.adoptedStyleSheets = [style];
};

/* All that is seen, a line each, which begins with what it is; only lines of these kinds, where they are given. */
const linesOf = kinds => {
  const lines = [];
  const add = (kind, ...texts) => {
    if (!kinds || kinds.includes(kind)) lines.push([kind, ...texts.filter(text => text !== '')].join(' '));
  };
  const one = selector => document.querySelector(selector);
  const all = (selector, root = document) => [...root.querySelectorAll(selector)];
  const rounded = text => text.replace(/-?\d+\.\d+/g, number => String(Math.round(number * 10) / 10));
  const classOf = element => [...element.classList].filter(name => name !== 'on' && name !== 'lit').join('.');
  const attributes = element => [...element.attributes].filter(({name}) => !/^(class|data-.*|tabindex|rx)$/.test(name))
    .map(({name, value}) => (name === 'd' ? '' : name + '=') + rounded(value)).join(' ');
  const label = mark => mark.ariaLabel.replace(/:? .*/, '');

  const focus = document.activeElement, {top, bottom} = focus.getBoundingClientRect();
  const row = focus.closest('li');
  add('address', location.search + location.hash);
  add('focus', focus.matches('[data-m]') ? `mark ${focus.ariaLabel}` : row ?
    `${focus.className || focus.localName} ${row.id || 'of repeats'}` : focus.name || focus.dataset.do || focus.localName,
  focus === document.body || (top >= 0 && bottom <= window.innerHeight) ? '' : 'out of sight');
  add('span', one('.span').textContent);
  add('asked', one('output').textContent,
    ...all('.ask [name]').map(field => `${field.name}=${field.selectedOptions?.[0].textContent ?? field.value}`),
    ...all('.ask[hidden], .zoom[hidden]').map(part => `${part.className} is hidden`));

  for (const row of all('section.list .tree li')) {
    const summary = row.querySelector('summary'), fold = row.querySelector(':scope > .fold');
    add('row', '\u00b7'.repeat(row.style.getPropertyValue('--d') || 0) +
      (fold ? `${fold.ariaExpanded === 'true' ? 'v' : '>'} (${fold.ariaLabel})` : ''),
    summary ? [...summary.children].map(part => part.textContent).join(' ') : row.textContent,
    classOf(row), row.id && '#' + row.id, row.querySelector('details')?.open ? 'open' : '');
    for (const field of all('details[open] dt', row))
      add('record', `${field.textContent}: ${field.nextElementSibling.innerHTML}`);
  }

  for (const svg of all('.drawing svg, .overview')) {
    add('drawing', classOf(svg), attributes(svg));
    for (const part of svg.children) {
      const [shape, ...texts] = part.children, kind = svg.matches('.canvas') ? part.classList[0] : classOf(svg);
      if (part.localName !== 'a') add(kind, part.localName, classOf(part), attributes(part), part.textContent.trim());
      else add('mark', part.ariaLabel, part.getAttribute('href'), classOf(shape), attributes(shape),
        ...texts.map(text => `${classOf(text)} ${attributes(text)} ${text.textContent}`), part.tabIndex === 0 ? 'tab stop' : '');
    }
  }
  add('stop', ...all('.canvas a[tabindex="0"]').map(label));
  add('drawn', ...all('.canvas a').map(label), `with ${all('.canvas .arrow').length} arrows`,
    one('.canvas').matches('.crowded') ? 'in a crowd' : '');
  add('lit', ...all('.tree .lit').map(lit => lit.id),
    ...all('.canvas.lit .on').map(part => part.ariaLabel ? label(part) : classOf(part)));
  if (one('.pane').scrollTop > 0) add('pane', one('.pane').scrollTop);

  const box = one('body > .box');
  if (!box.hidden) {
    const at = box.getBoundingClientRect(), mark = (one('.canvas a:is(:hover, :focus)') ?? box).getBoundingClientRect();
    const isRight = Math.abs(at.right - document.documentElement.clientWidth + 8) < 2;
    add('hint', at.top > mark.bottom ? `${Math.round(at.top - mark.bottom)} below,` : `${Math.round(mark.top - at.bottom)} above,`,
      isRight ? 'at the right edge:' : `${Math.round(at.left - mark.left)} beside:`,
      ...[...box.children].map(part => part.innerText.replace(/\n/g, ' / ')));
  }
  return lines;
};

/* ---- Incidents ----------------------------------------------------------------------------------------------------- */

const START = Date.UTC(2026, 10, 24, 21);
const DIGITS = './0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz';
const digits = (number, count) =>
  Array.from({length: count}, (_, at) => DIGITS[Math.floor(number / 64 ** at) % 64]).join('');

/* Error IDs by names: with a node they tell the time and the node, else they are "id-NAME". */
const ids = new Map();
const inIds = text => text.replace(/\bid-(\w+)/g, (all, name) => ids.get(name) ?? all);
const inNames = text => [...ids].reduce((said, [name, id]) => said.replaceAll(id, `id-${name}`), text);
const idOf = (name, second, microsecond, {node, id}) => {
  if (id) return id === '-' ? null : id;
  const address = node?.split('.').reduce((sum, octet) => sum * 256 + Number(octet), 0);
  ids.set(name, !node ? `id-${name}` : '7' + digits(ids.size, 6) + digits(START / 1000 + second, 6) + digits(microsecond, 4) +
    digits(address, 6) + '.'.repeat(19));
  return ids.get(name);
};
const pairOf = word => [word.split('=', 1)[0], word.slice(word.indexOf('=') + 1)];
const incidentOf = (line, at) => {
  const [name, time, process, ...rest] = line.trim().split(/ +/), [command, number] = process.split('.');
  const second = Math.floor(time), microsecond = Math.round((time - second) * 1e6);
  const said = Object.fromEntries(rest.map(pairOf).map(([key, text]) => [key, text.replaceAll('_', ' ')]));
  const iso = new Date(START + second * 1000).toISOString(), text = said.says ?? `It is ${name}.`;
  return JSON.stringify({
    stack: 'disks', offset: at, id: idOf(name, second, microsecond, said), node: said.node,
    cause: said.cause ? ids.get(said.cause) ?? said.cause : null, time: iso.replace('.000', ''),
    id_time: said.node && iso.replace('000Z', `${String(microsecond).padStart(6, '0')}Z`),
    process: {name: command, id: Number(number), parent: 1, thread: 1},
    source: {file: 'a.c', version: '1', product: said.product ?? 'web', line: 7},
    message: {catalog: '', set: 1, number: 1, default: text, arguments: said.value ? [{type: 'string', value: said.value}] : []},
    description: text, details: said.details ?? ''}) + '\n';
};
const range = count => Array.from({length: count}, (_, at) => at);
/* Many repeats; processes of one incident each, `linked` of them a chain; causes with effects in 14 lanes, in the last
 * lane of the last one two. */
const MORE = {
  many: count => range(count).map(at => `f${at} 5 filler.9 says=Filler.`),
  lanes: (count, {linked = 5}) => range(count).map(at => `L${at} ${at * 10} lane.${at} ${at % linked ? `cause=L${at - 1}` : ''}`),
  fans: count => range(count).flatMap(at => [`F${at} ${at * 100} cause.1`,
    ...range(at < count - 1 ? 14 : 15).map(to => `F${at}to${to} ${at * 100 + 20} effect.${Math.min(to, 13)} cause=F${at}`)]),
};

/* ---- What can be done, by its first word ---------------------------------------------------------------------------- */

const row = name => `.tree li[id="id-${name}"]`;
const NAMED = {
  mark: name => `.canvas a[href="#${encodeURIComponent(inIds(`id-${name}`)).replaceAll('%2F', '/')}"]`,
  row: name => `${row(name)} > details > summary`, fold: name => `${row(name)} > .fold`,
  number: name => `${row(name)} > details > summary > b`, text: name => `${row(name)} > details > summary > i`,
  repeats: number => `.tree li[data-g="${number}"] > details > summary`,
};
const find = async (tab, [kind, ...rest]) => {
  const found = await tab.$(inIds(NAMED[kind] ? NAMED[kind](...rest) : [kind, ...rest].join(' ')));
  if (!found) throw new Error(`there is no ${kind} ${rest.join(' ')}`);
  return found;
};
const pointOf = async (tab, selector, part) => {
  const {x, y, width} = await tab.$eval(selector, element => element.getBoundingClientRect().toJSON());
  return [x + part * width, y + 2]; // above all marks
};
const ACTIONS = {
  press: async (tab, keys) => {
    for (const key of keys) {
      const held = key.split(/\+(?=.)/), last = held.pop();
      for (const part of held) await tab.keyboard.down(part);
      await tab.keyboard.press(last);
      for (const part of held) await tab.keyboard.up(part);
    }
  },
  click: async (tab, what, held) => (await find(tab, what)).evaluate((element, key) => {
    let said;
    if (key) window.addEventListener('click', event => { // before the browser opens a tab
      said = event.defaultPrevented ? 'taken' : 'left to the browser';
      event.preventDefault();
    }, {once: true});
    element.dispatchEvent(new MouseEvent('click', {bubbles: true, cancelable: true, [key]: true}));
    return said;
  }, held),
  hit: async (tab, what) => {
    await (await find(tab, what)).click();
    await tab.mouse.move(0, 0); // else it is over whatever comes there next
  },
  focus: async (tab, what) => (await find(tab, what)).evaluate(element => element.focus()),
  hover: async (tab, what) => (await find(tab, what)).hover(),
  leave: tab => tab.mouse.move(0, 0),
  go: (tab, [hash = '']) => tab.evaluate(address => { location.hash = address; }, inIds(hash)),
  ask: (tab, [name, ...words]) => tab.$eval(`[name=${name}]`, (field, text) => {
    field.value = field.options ? [...field.options].find(option => option.textContent === text).value : text;
    field.dispatchEvent(new Event('input', {bubbles: true}));
  }, words.join(' ')),
  wheel: (tab, [selector, part, ...turns]) => tab.$eval(selector, (element, at, turn) => {
    const {left, top, width} = element.getBoundingClientRect();
    const event = new WheelEvent('wheel', {clientX: left + at * width, clientY: top + 9, bubbles: true, cancelable: true, ...turn});
    element.dispatchEvent(event);
    return event.defaultPrevented ? 'taken' : 'left to the browser';
  }, Number(part), Object.fromEntries(turns.map(pairOf))),
  drag: async (tab, [selector, from, to, button = 'left']) => {
    await tab.mouse.move(...await pointOf(tab, selector, from));
    await tab.mouse.down({button});
    await tab.mouse.move(...await pointOf(tab, selector, to), {steps: 4});
    await tab.mouse.up({button});
  },
  scroll: (tab, [y]) => tab.$eval('.pane', (pane, top) => { pane.scrollTop = top; }, Number(y)),
  size: (tab, [width, height]) => tab.setViewport({width: Number(width), height: Number(height)}),
  paper: tab => tab.evaluate(() => { window.dispatchEvent(new Event('beforeprint')); }),
  screen: tab => tab.evaluate(() => { window.dispatchEvent(new Event('afterprint')); }),
};

/* ---- Telling -------------------------------------------------------------------------------------------------------- */

const changes = (before, now) => {
  const gone = [...before], came = [];
  for (const line of now) {
    const at = gone.indexOf(line);
    if (at < 0) came.push('+ ' + line);
    else gone.splice(at, 1);
  }
  return [...gone.map(line => '- ' + line), ...came];
};

/* Does what the file tells; gives what differs from it first, or ''. With `isRenewed` it writes the file anew. */
export const tell = async (file, {open, pageOf}, isRenewed) => {
  const written = [];
  let tab, kinds, incidents = '', state = [];
  for (const step of readFileSync(file, 'utf8').split(/^(?=[#$]|page )/m)) {
    const lines = step.trimEnd().split('\n'), told = lines.filter(line => !/^[-+=] /.test(line));
    const wanted = lines.slice(told.length), [head] = told, isPage = head.startsWith('page');
    const before = state, said = [];
    let made = [];
    if (isPage) {
      const options = Object.fromEntries(head.split(' ').slice(1).map(pairOf));
      const more = Object.keys(MORE).flatMap(name => options[name] ? MORE[name](Number(options[name]), options) : []);
      if (!options.again) incidents = [...told.slice(1), ...more].map(incidentOf).join('');
      kinds = options.only?.split(',');
      await tab?.close();
      tab = await open('', {
        page: pageOf(incidents, ...options.chain ? ['--chain', `--id=id-${options.chain}`] : []), prepare, zone: options.zone,
        hash: inIds(options.hash ?? ''), width: Number(options.width ?? 1280), height: Number(options.height ?? 4000)});
      await tab.bringToFront();
    } else if (!head.startsWith('#')) {
      const [how, ...words] = head.slice(2).split(' '), [verb, held] = how.split('+');
      const answer = await ACTIONS[verb](tab, words, held).catch(error => error.message);
      if (typeof answer === 'string') said.push('+ ' + answer);
    }
    for (const limit = Date.now() + 10000; !head.startsWith('#') && Date.now() < limit;) {
      const last = made.join('\n');
      await tab.evaluate(() => window.settle());
      state = (await tab.evaluate(linesOf, kinds)).map(inNames);
      made = isPage ? state.map(line => '= ' + line) : [...said, ...changes(before, state)];
      if (made.join('\n') === (isRenewed ? last : wanted.join('\n'))) break;
    }
    if (tab) made.push(...tab.problems.splice(0).map(problem => '+ problem ' + problem));
    written.push(...told, ...made);
    if (!isRenewed && made.join('\n') !== wanted.join('\n')) {
      await tab.close();
      return `${told.join('\n')}\nis told as\n${wanted.join('\n')}\nand is\n${made.join('\n')}`;
    }
  }
  await tab.close();
  if (isRenewed) writeFileSync(file, written.join('\n') + '\n');
  return '';
};
