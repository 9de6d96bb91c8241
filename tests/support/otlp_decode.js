// SPDX-License-Identifier: Apache-2.0
// Decodes lines of OTLP JSON from standard input with the messages that OpenTelemetry generates of
// its own definitions (npm package @opentelemetry/otlp-transformer), to the bytes of the binary form and
// back. What they do not know, or know otherwise, does not come back and is an error.
//
//   node otlp_decode.js MODULES [count]
//
// MODULES is the directory node_modules. Prints a line of JSON for each record (resource attributes,
// attributes and the other fields, ids as hexadecimal), or how many there are.
'use strict';
const { isDeepStrictEqual } = require('util');

const modules = require('path').resolve(process.argv[2]);
const root = require(`${modules}/@opentelemetry/otlp-transformer/build/src/generated/root.js`);
const Logs = root.opentelemetry.proto.collector.logs.v1.ExportLogsServiceRequest;
const counting = process.argv[3] === 'count';

// In JSON these two are hexadecimal, not base64 as other bytes are.
const IDS = { traceId: 16, spanId: 8 };

function* records(request) {
    for (const resource of request.resourceLogs)
        for (const scope of resource.scopeLogs)
            for (const record of scope.logRecords)
                yield [resource, record];
}

function eachId(request, change) {
    for (const [, record] of records(request))
        for (const [name, length] of Object.entries(IDS))
            if (record[name] !== undefined)
                record[name] = change(record[name], length);
}

function toBytes(text, length) {
    const bytes = Buffer.from(text, 'hex');
    if (bytes.length !== length || bytes.toString('hex') !== text)
        throw new Error(`'${text}' is no id of ${length} bytes`);
    return new Uint8Array(bytes);
}

function values(attributes) {
    const found = {};
    for (const { key, value } of attributes) {
        if (key in found)
            throw new Error(`${key} is there twice`);
        const [[kind, content]] = Object.entries(value);
        found[key] = kind === 'intValue' ? { int: content } : content;
    }
    return found;
}

let count = 0;
function take(line) {
    const told = JSON.parse(line);
    eachId(told, toBytes);
    const bytes = Logs.encode(Logs.fromObject(told)).finish();
    const known = Logs.toObject(Logs.decode(bytes), { longs: String, bytes: Array });
    for (const request of [told, known])
        eachId(request, (id) => Buffer.from(id).toString('hex'));
    if (!isDeepStrictEqual(JSON.parse(JSON.stringify(known)), told))
        throw new Error(`not understood whole: ${line.slice(0, 2000)}\n${JSON.stringify(known).slice(0, 2000)}`);
    for (const [resource, record] of records(known)) {
        ++count;
        if (counting)
            continue;
        const { attributes, ...rest } = record;
        process.stdout.write(JSON.stringify({ resource: values(resource.resource.attributes), attributes: values(attributes), ...rest }) + '\n');
    }
}

// Lines end in a line feed and nothing else.
let parts = [];
process.stdin.on('data', (block) => {
    let begin = 0;
    for (let end = block.indexOf(10); end !== -1; end = block.indexOf(10, begin)) {
        parts.push(block.subarray(begin, end));
        take(Buffer.concat(parts).toString());
        parts = [];
        begin = end + 1;
    }
    parts.push(block.subarray(begin));
});
process.stdin.on('end', () => {
    if (Buffer.concat(parts).length !== 0)
        throw new Error('the last line is cut off');
    if (counting)
        process.stdout.write(`${count}\n`);
});
