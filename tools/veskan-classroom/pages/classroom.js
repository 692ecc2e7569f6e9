// Shared by the student's and the teacher's page: a WebSocket to the classroom that comes back
// by itself when the connection drops (a phone that sleeps, a flaky classroom network).
'use strict';

// Opens the socket at `path` and keeps it open. `handlers.message(object)` hears every message,
// `handlers.open()` runs after each (re)connection, `handlers.status(text)` tells how it goes.
// Returns a function that sends a text, false while disconnected.
function classroomSocket(path, handlers) {
  const scheme = location.protocol === 'https:' ? 'wss:' : 'ws:';
  let socket = null;
  let delay = 250;
  let closedForGood = false;

  function connect() {
    socket = new WebSocket(scheme + '//' + location.host + path);
    socket.onopen = () => {
      delay = 250;
      handlers.status('connected');
      if (handlers.open) handlers.open();
    };
    socket.onmessage = (event) => {
      let message;
      try {
        message = JSON.parse(event.data);
      } catch (e) {
        return;
      }
      handlers.message(message);
    };
    socket.onclose = (event) => {
      socket = null;
      if (event.code === 1001 || event.code === 1008) {
        // Going away: the classroom closed. Policy: this address is not ours. Either way
        // trying again would not help.
        closedForGood = true;
        handlers.status(event.code === 1001 ? 'the classroom has closed' : 'refused');
        return;
      }
      handlers.status('reconnecting…');
      setTimeout(connect, delay);
      delay = Math.min(delay * 2, 4000);
    };
  }
  connect();
  return (text) => {
    if (closedForGood || !socket || socket.readyState !== WebSocket.OPEN) return false;
    socket.send(text);
    return true;
  };
}

// A new element with attributes and children (elements or texts).
function element(tag, attributes, ...children) {
  const svg = ['svg', 'rect', 'text', 'g', 'line'].includes(tag);
  const node = svg ? document.createElementNS('http://www.w3.org/2000/svg', tag)
                   : document.createElement(tag);
  for (const [name, value] of Object.entries(attributes || {})) node.setAttribute(name, value);
  for (const child of children)
    node.append(typeof child === 'string' || typeof child === 'number' ? String(child) : child);
  return node;
}
