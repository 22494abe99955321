// The page of the local service. Whatever applications sent is shown as text, never as markup.

const most = 1000;
const behaviors = { 1: 'browser', 2: 'app' };

const find = (selector, within = document) => within.querySelector(selector);
const copyOf = (id) => find(`template#${id}`).content.firstElementChild.cloneNode(true);

function tell(text) {
  find('#state').textContent = text;
}

async function call(method, path, body) {
  const answer = await fetch(path, {
    method,
    headers: body ? { 'Content-Type': 'application/json' } : {},
    body: body && JSON.stringify(body),
  });
  const content = answer.status === 204 ? null : await answer.json();
  if (!answer.ok) throw new Error(content.detail);
  return content;
}

// A handler that tells what went wrong.
const attempt = (action, otherwise = tell) => async (event) => {
  try {
    await action(event);
  } catch (error) {
    otherwise(error.message);
  }
};

function fillList(list, pairs) {
  list.replaceChildren();
  for (const [name, value] of pairs) {
    if (value === '' || value === undefined) continue;
    const term = document.createElement('dt');
    const definition = document.createElement('dd');
    term.textContent = name;
    definition.textContent = value;
    list.append(term, definition);
  }
}

const localTime = (text) => new Date(text).toLocaleString();

function addOption(select, value, label = value) {
  if (!value || [...select.options].some((option) => option.value === value)) return;
  select.add(new Option(label, value));
}

// Requests

const requestRows = find('#requests .rows');
const filter = find('#filter');

function applyFilter() {
  let shown = 0;
  for (const row of requestRows.children) {
    row.hidden = ['endpoint', 'device'].some(
      (key) => filter[key].value && filter[key].value !== row.dataset[key]);
    shown += row.hidden ? 0 : 1;
  }
  find('output', filter).textContent = `${shown} of ${requestRows.children.length}`;
  find('#requests .empty').hidden = requestRows.children.length > 0;
}

function addRequest(request) {
  const row = copyOf('request');
  row.dataset.endpoint = request.endpoint;
  row.dataset.device = request.device;
  const set = (name, text) => (find(name, row).textContent = text);
  const time = new Date(request.time);
  set('time', `${time.toLocaleTimeString('en-GB')}.${request.time.slice(-4, -1)}`);
  find('time', row).dateTime = request.time;
  find('time', row).title = time.toLocaleString();
  set('.endpoint', request.endpoint);
  set('.status', request.status);
  find('.status', row).classList.toggle('bad', request.status >= 300);
  set('.duration', `${request.milliseconds} ms`);
  set('.fault', request.faults.join(', '));
  set('.device', request.device);
  set('.sent', JSON.stringify(request.sent, null, 2));
  set('.answered', typeof request.answered === 'string'
    ? request.answered : JSON.stringify(request.answered, null, 2));
  requestRows.prepend(row);
  if (requestRows.children.length > most) requestRows.lastElementChild.remove();
  addOption(filter.endpoint, request.endpoint);
  addOption(filter.device, request.device);
}

filter.addEventListener('change', applyFilter);
filter.addEventListener('submit', (event) => event.preventDefault());

// What is listed as a whole. What is open or focused in a row stays so while the row's item is there.

async function refresh(section, path, key, make, fill) {
  const items = await call('GET', path);
  const list = find(`#${section} .rows`);
  const names = items.map((item) => String(item[key]));
  const focused = document.activeElement;
  for (const row of [...list.children]) if (!names.includes(row.dataset.key)) row.remove();
  const kept = new Map([...list.children].map((row) => [row.dataset.key, row]));
  items.forEach((item, i) => {
    const row = kept.get(names[i]) ?? make(item);
    row.dataset.key = names[i];
    const text = JSON.stringify(item);
    if (row.dataset.item !== text) fill(row, item);
    row.dataset.item = text;
    if (list.children[i] !== row) list.insertBefore(row, list.children[i]);
  });
  if (focused !== document.activeElement) focused.focus({ preventScroll: true });
  find(`#${section} .empty`).hidden = items.length > 0;
  return items;
}

function fillLink(row, link) {
  const about = link.description;
  const set = (name, text) => {
    find(name, row).textContent = text ?? '';
    find(name, row).hidden = !text;
  };
  set('.url', link.short_url);
  set('.card-image', about.social_image_url);
  set('.card-title', about.social_title || about.link_name || link.short_url);
  set('.card-description', about.social_description);
  set('.card-domain', about.domain);
  const campaign = ['source', 'medium', 'campaign', 'content', 'term']
    .filter((name) => about[`utm_${name}`])
    .map((name) => `${name} ${about[`utm_${name}`]}`);
  fillList(find('dl', row), [
    ['Destination', about.destination_url],
    ['Opens on iOS', behaviors[about.ios_behavior]],
    ['Opens on Android', behaviors[about.android_behavior]],
    ['Name', about.link_name ?? ''],
    ['UTM', campaign.join(', ')],
    ['Created', localTime(link.created)],
    ['Tapped', `${link.taps} ${link.taps === 1 ? 'time' : 'times'}`],
  ]);
}

function makeLink(link) {
  const row = copyOf('link');
  find('.copy', row).addEventListener('click', attempt(async () => {
    await navigator.clipboard.writeText(link.short_url);
    tell(`Copied ${link.short_url}`);
  }));
  find('.open', row).href = link.page;
  find('.tap', row).addEventListener('click', attempt(async () => {
    await call('POST', '/api/taps', { short_url: link.short_url });
    tell(`Tapped ${link.short_url}: the next installation that asks hears of it`);
  }));
  find('.qr', row).addEventListener('toggle', ({ target }) => {
    if (find('img', target)) return;
    const image = new Image();
    image.alt = `QR code of ${link.short_url}`;
    image.src = `/api/qr?text=${encodeURIComponent(link.short_url)}`;
    target.append(image);
  });
  return row;
}

function fillDevice(row, device) {
  find('.id', row).textContent = device.id;
  find('.seen', row).textContent = `First seen ${localTime(device.first_seen)}, last seen `
    + `${localTime(device.last_seen)}; ${device.pings} ${device.pings === 1 ? 'ping' : 'pings'}; `
    + `API key ${device.api_key}`;
  fillList(find('dl', row), Object.entries(device.description));
}

function makeDevice(device) {
  const row = copyOf('device');
  find('.forget', row).addEventListener('click', attempt(async () => {
    await call('DELETE', `/api/devices/${encodeURIComponent(device.id)}`);
    tell(`Forgot ${device.id}`);
  }));
  return row;
}

const newFault = find('#new-fault');

function fillFault(row, fault) {
  const kind = [...newFault.kind.options].find((option) => option.value === fault.kind).text;
  find('.what', row).textContent = `${fault.endpoint === '*' ? 'any endpoint' : fault.endpoint}: `
    + `${kind}${fault.value === null ? '' : ` (${fault.value})`}${fault.once ? ', once' : ''}`;
}

function makeFault(fault) {
  const row = copyOf('fault');
  find('button', row).addEventListener('click', attempt(
    () => call('DELETE', `/api/faults/${fault.id}`)));
  return row;
}

newFault.kind.addEventListener('change', () => {
  const { value, example } = newFault.kind.selectedOptions[0].dataset;
  find('.value', newFault).hidden = value === undefined;
  find('.value span', newFault).textContent = value;
  newFault.value.value = example ?? '';
});

newFault.addEventListener('submit', attempt(async (event) => {
  event.preventDefault();
  const { value: meaning } = newFault.kind.selectedOptions[0].dataset;
  const written = newFault.value.value.trim();
  const isNumber = meaning !== 'Field' && written !== '' && !Number.isNaN(Number(written));
  find('.problem', newFault).textContent = '';
  await call('POST', '/api/faults', {
    endpoint: newFault.endpoint.value,
    kind: newFault.kind.value,
    value: meaning === undefined || written === '' ? null : isNumber ? Number(written) : written,
    once: newFault.once.checked,
  });
}, (problem) => (find('.problem', newFault).textContent = problem)));

async function refreshAll() {
  await refresh('links', '/api/links', 'short_url', makeLink, fillLink);
  await refresh('devices', '/api/devices', 'id', makeDevice, fillDevice);
  const faults = await refresh('faults', '/api/faults', 'id', makeFault, fillFault);
  find('#faults-on').textContent = `${faults.length} on`;
  find('#faults-on').hidden = faults.length === 0;
}

// One refresh at a time, and one more if something changed meanwhile.
let refreshing = null, isStale = false;
function changed() {
  isStale = true;
  refreshing ??= (async () => {
    while (isStale) {
      isStale = false;
      await attempt(refreshAll)();
    }
    refreshing = null;
  })();
}

// What came, in few steps: a thousand requests are one.
const events = new EventSource('/api/events');
let arrived = [];
events.addEventListener('request', ({ data }) => {
  arrived.push(JSON.parse(data));
});
events.addEventListener('changed', () => {
  for (const request of arrived.splice(0)) addRequest(request);
  applyFilter();
  changed();
});
events.addEventListener('open', () => tell('Live'));
events.addEventListener('error', () => tell(`The service doesn’t answer; ${
  events.readyState === EventSource.CLOSED ? 'load the page again' : 'trying again …'}`));

for (const name of await call('GET', '/api/endpoints')) {
  addOption(newFault.endpoint, name);
  addOption(filter.endpoint, name);
}
