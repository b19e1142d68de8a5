'use strict';
// Compiles the examples against ../index.d.ts (and ../browser.d.ts when present) with the options
// of tsconfig.json (strict), and checks that the declarations also refuse what they must: each
// file in must-fail/ marks lines with "// error TS<code> ..."; every marked line must fail with
// those codes and nothing else in the file may fail. One program holds them all, so @types/node
// is read once.
//   node node/typecheck/check.js
const fs = require('fs');
const path = require('path');

const here = __dirname;
let ts;
try {
  ts = require(path.join(here, 'node_modules', 'typescript'));
} catch {
  console.error('typecheck: node/typecheck/node_modules/typescript is missing; run scripts/setup.sh');
  process.exit(1);
}
if (!fs.existsSync(path.join(here, 'node_modules', '@types', 'node', 'package.json'))) {
  console.error('typecheck: node/typecheck/node_modules/@types/node is missing; run scripts/setup.sh');
  process.exit(1);
}

const configPath = path.join(here, 'tsconfig.json');
const parsed = ts.getParsedCommandLineOfConfigFile(configPath, {}, {
  ...ts.sys,
  onUnRecoverableConfigFileDiagnostic(diagnostic) {
    console.error(`typecheck: ${ts.flattenDiagnosticMessageText(diagnostic.messageText, '\n')}`);
    process.exit(1);
  },
});
const examples = parsed.fileNames;
const failDir = path.join(here, 'must-fail');
const mustFail = fs.readdirSync(failDir).filter((name) => name.endsWith('.ts')).map((name) => path.join(failDir, name));
if (examples.length === 0 || mustFail.length === 0) {
  console.error('typecheck: no examples or no must-fail files');
  process.exit(1);
}

const program = ts.createProgram([...examples, ...mustFail], parsed.options);
const byFile = new Map();
for (const diagnostic of ts.getPreEmitDiagnostics(program)) {
  const file = diagnostic.file ? path.resolve(diagnostic.file.fileName) : '(options)';
  const line = diagnostic.file ? diagnostic.file.getLineAndCharacterOfPosition(diagnostic.start).line + 1 : 0;
  const text = `${path.relative(process.cwd(), file)}:${line}: TS${diagnostic.code} ` +
    ts.flattenDiagnosticMessageText(diagnostic.messageText, ' ');
  if (!byFile.has(file)) byFile.set(file, []);
  byFile.get(file).push({ line, code: `TS${diagnostic.code}`, text });
}

const problems = [];
for (const [file, diagnostics] of byFile) {
  if (mustFail.includes(file)) continue;
  for (const d of diagnostics) problems.push(d.text);
}
let refused = 0;
for (const file of mustFail) {
  const diagnostics = byFile.get(file) || [];
  const lines = fs.readFileSync(file, 'utf8').split('\n');
  const expected = new Map();
  lines.forEach((text, index) => {
    const marker = /\/\/ error((?: TS\d+)+)\s*$/.exec(text);
    if (marker) expected.set(index + 1, marker[1].trim().split(/\s+/));
  });
  if (expected.size === 0) problems.push(`${file}: no line is marked "// error TS<code>"`);
  for (const [line, codes] of expected) {
    const found = diagnostics.filter((d) => d.line === line).map((d) => d.code);
    for (const code of codes) {
      if (!found.includes(code)) {
        problems.push(`${path.relative(process.cwd(), file)}:${line}: compiles without ${code} ` +
          `(found ${found.join(', ') || 'no error'}); the declarations accept what they must refuse`);
      }
    }
    if (codes.every((code) => found.includes(code))) refused += 1;
  }
  for (const d of diagnostics) {
    if (!expected.has(d.line)) problems.push(`unexpected: ${d.text}`);
  }
}

if (problems.length > 0) {
  for (const problem of problems) console.error(`typecheck: ${problem}`);
  process.exit(1);
}
console.log(`typecheck: ${examples.length} example(s) compile in strict mode; ` +
  `${refused} misuse(s) in ${mustFail.length} file(s) are refused`);
