'use strict';
// How a Vuser tells the runner about one finished request: an Info line on the log channel,
//   kesh:request ["<kind>",<milliseconds>]            or, for a failed one,
//   kesh:request ["<kind>",<milliseconds>,"<error kind>"]
// A line per request keeps every request counted up to the moment its Vuser stops, with nothing
// to flush. Loaded by Vuser scripts (through lib/vuser.js) and by the runner, so it uses nothing
// of Node.

const marker = 'kesh:request ';

// Kinds are labels, not data: long or odd ones are cut so that one bad script cannot bloat
// every line and the runner's tables.
const kMaxLabel = 64;
const label = (value) => String(value).slice(0, kMaxLabel);

function format(kind, ms, error) {
  const fields = [label(kind), Math.round(Number(ms) * 1000) / 1000 || 0];
  if (error !== undefined && error !== null && error !== false) fields.push(label(error));
  return marker + JSON.stringify(fields);
}

// { kind, ms, error } for a report line (as the runner receives it, prefix and all), else null.
function parse(line) {
  const at = line.indexOf(marker);
  if (at === -1) return null;
  let fields;
  try {
    fields = JSON.parse(line.slice(at + marker.length));
  } catch {
    return null;
  }
  if (!Array.isArray(fields) || typeof fields[0] !== 'string' || typeof fields[1] !== 'number') return null;
  if (fields.length > 3 || (fields.length === 3 && typeof fields[2] !== 'string')) return null;
  return { kind: fields[0], ms: Math.max(0, fields[1]), error: fields.length === 3 ? fields[2] : null };
}

module.exports = { marker, format, parse };
