// veskan-classroom in a real browser: headless Chromium (Debian's) driven through its DevTools
// protocol. One teacher page and fifty student pages, each student in a browser context of its
// own (a phone of its own), answer the three questions of the sample quiz; the teacher's chart,
// the CSV and the saved results must hold exactly those 150 answers. Along the way: a student
// who reloads keeps one answer per question, a student whose connection drops comes back by
// itself, the teacher page wants the password, a second start hands its quiz to the running
// copy (a start without one changes nothing), "Run again" clears the answers, and a shutdown
// request closes everything cleanly.
//
// Environment: CLASSROOM (the program), SHUTDOWN (veskan-shutdown), CHROMIUM (default
// /usr/bin/chromium), SCREENSHOTS (a folder for the README's pictures; none when unset).
import assert from 'node:assert/strict';
import {spawn} from 'node:child_process';
import fs from 'node:fs';
import {execFileSync} from 'node:child_process';
import http from 'node:http';
import https from 'node:https';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';
import puppeteer from 'puppeteer-core';

const STUDENTS = 50;
const CHOICES = 4;
const QUESTIONS = 3;
const STEP_TIMEOUT = 60000;
const PASSWORD = 'chalk-42';

const work = fs.mkdtempSync(path.join(os.tmpdir(), 'veskan-classroom-e2e-'));
const results = path.join(work, 'results');
const environment = {
  ...process.env,
  VESKAN_USER_REGISTRY: path.join(work, 'user.db'),
  VESKAN_MACHINE_REGISTRY: path.join(work, 'machine.db'),
  VESKAN_NAMESPACE: 'classroom-e2e-' + process.pid,  // a shutdown request here closes nothing else
};
const sampleQuiz = path.join(path.dirname(process.env.CLASSROOM), 'classroom', 'sample-quiz.rdf');

// The whole run is bounded: a hang fails instead of holding CI.
const deadline = setTimeout(() => {
  console.error('FAIL: the run took longer than 5 minutes');
  process.exit(1);
}, 300000);

function startClassroom(extra) {
  const child = spawn(process.env.CLASSROOM,
    ['--port', '0', '--listen', '127.0.0.1', '--password', PASSWORD, '--results', results,
     '--room', 'e2e', ...extra],
    {env: environment, stdio: ['ignore', 'pipe', 'inherit']});
  child.output = '';
  child.stdout.on('data', (chunk) => { child.output += chunk; });
  child.exited = new Promise((resolve) => child.on('exit', (code) => resolve(code)));
  return child;
}

async function waitFor(test, what) {
  const until = Date.now() + STEP_TIMEOUT;
  while (Date.now() < until) {
    const value = test();
    if (value) return value;
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
  throw new Error('timed out waiting for ' + what);
}

function get(url, headers = {}) {
  const client = url.startsWith('https:') ? https : http;
  return new Promise((resolve, reject) => {
    client.get(url, {headers, rejectUnauthorized: false}, (reply) => {
      let body = '';
      reply.on('data', (chunk) => { body += chunk; });
      reply.on('end', () => resolve({status: reply.statusCode, headers: reply.headers, body}));
    }).on('error', reject);
  });
}

// A TCP relay in front of the classroom whose connections the test can cut, as a phone that
// walks out of the access point's reach would have them cut.
function startRelay(port) {
  const sockets = new Set();
  const relay = net.createServer((inbound) => {
    const outbound = net.connect(port, '127.0.0.1');
    for (const [a, b] of [[inbound, outbound], [outbound, inbound]]) {
      sockets.add(a);
      a.on('close', () => { sockets.delete(a); b.destroy(); });
      a.on('error', () => {});
      a.pipe(b);
    }
  });
  relay.cut = () => { for (const socket of sockets) socket.destroy(); };
  return new Promise((resolve) => relay.listen(0, '127.0.0.1', () => resolve(relay)));
}

// The choice student `i` takes on question `number`: spread over the four, so that each bar of
// the chart has a count known in advance.
const choiceOf = (i, number) => (i + number) % CHOICES;
const expectedTally = (number) => {
  const counts = new Array(CHOICES).fill(0);
  for (let i = 0; i < STUDENTS; ++i) counts[choiceOf(i, number)] += 1;
  return counts;
};

async function phaseIs(page, phase, number) {
  await page.waitForFunction((p, n) => {
    const lesson = document.getElementById('lesson');
    return lesson && lesson.dataset.phase === p && lesson.dataset.number === String(n);
  }, {timeout: STEP_TIMEOUT}, phase, number);
}

async function answer(page, number, index) {
  await phaseIs(page, 'open', number);
  await page.click(`#choices button[data-index="${index}"]`);
  await page.waitForSelector('#received:not(.hidden)', {timeout: STEP_TIMEOUT});
}

const choiceOrder = (page) =>
  page.$$eval('#choices button', (buttons) => buttons.map((b) => b.dataset.index).join(''));

async function teacherShows(teacher, number, phase, answers) {
  await teacher.waitForFunction((n, p, a) =>
    document.body.dataset.number === String(n) && document.body.dataset.phase === p &&
    document.getElementById('answers').textContent === String(a),
  {timeout: STEP_TIMEOUT}, number, phase, answers);
}

const chartCounts = (teacher) =>
  teacher.$$eval('#chart rect', (bars) => bars.map((bar) => Number(bar.dataset.count)));

function answerCells(csv) {
  const lines = csv.replace(/^\uFEFF/, '').trim().split('\r\n');
  const rows = lines.slice(1).map((line) => line.split(','));
  return {header: lines[0], rows, answers: rows.reduce(
    (sum, row) => sum + row.slice(1, 1 + QUESTIONS).filter((cell) => cell !== '').length, 0)};
}

// With a certificate the classroom speaks HTTPS only, and says so in the addresses it prints.
async function checkHttps() {
  const certificate = path.join(work, 'cert.pem');
  const key = path.join(work, 'key.pem');
  execFileSync('openssl', ['req', '-x509', '-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:prime256v1',
    '-nodes', '-keyout', key, '-out', certificate, '-subj', '/CN=127.0.0.1', '-days', '1'],
  {stdio: 'ignore'});
  const secure = startClassroom(['--room', 'e2e-tls', '--cert', certificate, '--key', key]);
  try {
    const printed = await waitFor(() => /students: (https:\/\/[^\s]+)/.exec(secure.output),
      'the https addresses');
    assert.match(secure.output, /teacher: +https:\/\/127\.0\.0\.1:\d+\/teacher/);
    const page = await get(printed[1]);
    assert.equal(page.status, 200);
    assert.match(page.body, /Join the class/);
    assert.equal((await get(printed[1] + 'teacher')).status, 401);
  } finally {
    secure.kill('SIGTERM');
    assert.equal(await secure.exited, 0);
  }
}

async function main() {
  await checkHttps();
  const classroom = startClassroom([]);
  const printed = await waitFor(() => /students: (http:\/\/[^\s]+)/.exec(classroom.output),
    'the addresses');
  const base = printed[1];
  assert.match(classroom.output, /teacher: +http:\/\/127\.0\.0\.1:\d+\/teacher/);
  const port = Number(new URL(base).port);

  // The teacher's page and results want the password; the students' page does not.
  assert.equal((await get(base + 'teacher')).status, 401);
  assert.equal((await get(base + 'teacher/results.csv')).status, 401);
  const wrong = 'Basic ' + Buffer.from('teacher:guess').toString('base64');
  assert.equal((await get(base + 'teacher', {Authorization: wrong})).status, 401);
  assert.equal((await get(base)).status, 200);

  const relay = await startRelay(port);
  const browser = await puppeteer.launch({
    executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
    headless: true,
    args: ['--no-sandbox', '--disable-gpu', '--disable-dev-shm-usage', '--disable-quic',
           '--disable-background-networking', '--disable-background-timer-throttling',
           '--disable-renderer-backgrounding', '--disable-backgrounding-occluded-windows'],
  });
  try {
    const teacher = await browser.newPage();
    await teacher.setViewport({width: 1000, height: 760});
    await teacher.authenticate({username: 'teacher', password: PASSWORD});
    await teacher.goto(base + 'teacher');
    await teacher.waitForFunction(() => document.getElementById('status').textContent === 'connected',
      {timeout: STEP_TIMEOUT});

    // Fifty phones join, a few at a time. Student 2 reaches the classroom through the relay.
    const students = [];
    for (let first = 0; first < STUDENTS; first += 10) {
      students.push(...await Promise.all(Array.from({length: 10}, async (_, k) => {
        const i = first + k;
        const context = await browser.createBrowserContext();
        const page = await context.newPage();
        await page.setViewport({width: 390, height: 720, isMobile: true, deviceScaleFactor: 1});
        await page.goto(i === 2 ? `http://127.0.0.1:${relay.address().port}/` : base);
        await page.waitForSelector('#join-form:not(.hidden)', {timeout: STEP_TIMEOUT});
        await page.type('#name', 'Student ' + String(i + 1).padStart(2, '0'));
        await page.click('#join');
        await phaseIs(page, 'waiting', 1);
        return page;
      })));
    }
    await teacher.waitForFunction((n) => document.getElementById('students').textContent === String(n),
      {timeout: STEP_TIMEOUT}, STUDENTS);

    for (let number = 1; number <= QUESTIONS; ++number) {
      await teacher.click('#start');
      const orders = new Set();
      await Promise.all(students.map(async (page, i) => {
        if (number === 2 && i === 1) {  // reloads before answering: answers once afterwards
          await phaseIs(page, 'open', number);
          const before = await choiceOrder(page);
          await page.reload();
          await phaseIs(page, 'open', number);
          assert.equal(await choiceOrder(page), before, 'the same order after a reload');
        }
        await answer(page, number, choiceOf(i, number));
        orders.add(await choiceOrder(page));
        if (number === 2 && i === 0) {  // reloads after answering, then tries again
          await page.reload();
          await phaseIs(page, 'open', number);
          await page.waitForSelector('#received:not(.hidden)', {timeout: STEP_TIMEOUT});
          const taken = await page.$eval('#choices button.taken', (b) => Number(b.dataset.index));
          assert.equal(taken, choiceOf(i, number), 'the first answer still counts');
          await page.evaluate((n, c) => send(`answer\t${n}\t${c}`), number, (choiceOf(i, number) + 1) % CHOICES);
        }
      }));
      assert.ok(orders.size > 1, 'students see the choices in orders of their own');
      await teacherShows(teacher, number, 'open', STUDENTS);
      assert.deepEqual(await chartCounts(teacher), expectedTally(number));
      await teacher.click('#close');
      await teacherShows(teacher, number, 'closed', STUDENTS);
      assert.deepEqual(await chartCounts(teacher), expectedTally(number), 'one answer each');
      if (number === 1 && process.env.SCREENSHOTS) {
        fs.mkdirSync(process.env.SCREENSHOTS, {recursive: true});
        await teacher.screenshot({path: path.join(process.env.SCREENSHOTS, 'classroom-teacher.png')});
        await students[5].screenshot({path: path.join(process.env.SCREENSHOTS, 'classroom-student.png')});
      }
      if (number < QUESTIONS) await teacher.click('#next');
      if (number === 2) {
        // Student 2's connection drops while the class waits for the last question; the page
        // comes back by itself and answers as usual.
        await phaseIs(students[2], 'waiting', 3);
        relay.cut();
        await students[2].waitForFunction(() =>
          document.getElementById('status').textContent !== 'connected', {timeout: STEP_TIMEOUT});
        await students[2].waitForFunction(() =>
          document.getElementById('status').textContent === 'connected', {timeout: STEP_TIMEOUT});
      }
    }
    await teacher.waitForFunction(() => document.getElementById('total').textContent === '150',
      {timeout: STEP_TIMEOUT});

    // The CSV: one line per student, an answer for each of the three questions.
    const csv = await teacher.evaluate(async () => (await fetch('/teacher/results.csv')).text());
    const table = answerCells(csv);
    assert.match(table.header, /^Participant,What is the capital of Portugal\?,/);
    assert.equal(table.rows.length, STUDENTS);
    assert.equal(table.answers, STUDENTS * QUESTIONS);

    // A second start without a quiz file leaves the running lesson as it is.
    const idle = startClassroom([]);
    assert.equal(await idle.exited, 0);
    assert.match(idle.output, /runs already/);
    await new Promise((resolve) => setTimeout(resolve, 300));
    assert.equal(await teacher.$eval('#total', (total) => total.textContent), '150');

    await teacher.click('#end');
    await Promise.all(students.map((page) => page.waitForFunction(() =>
      document.getElementById('lesson').dataset.phase === 'ended', {timeout: STEP_TIMEOUT})));
    const saved = await waitFor(() => fs.existsSync(results) &&
      fs.readdirSync(results).filter((name) => name.endsWith('.csv')), 'the saved results');
    assert.equal(saved.length, 1);
    assert.equal(answerCells(fs.readFileSync(path.join(results, saved[0]), 'utf8')).answers, 150);
    const graph = fs.readFileSync(path.join(results, saved[0].replace(/\.csv$/, '.rdf')), 'utf8');
    assert.equal(graph.match(/<veskan:participant>/g).length, 150);

    // Run again: the answers go, the students stay.
    await teacher.click('#rerun');
    await teacherShows(teacher, 1, 'waiting', 0);
    await teacher.waitForFunction(() => document.getElementById('total').textContent === '0');
    const cleared = answerCells(await teacher.evaluate(async () => (await fetch('/teacher/results.csv')).text()));
    assert.equal(cleared.rows.length, 0);

    // A second start hands its quiz to the running copy and leaves.
    const second = startClassroom([sampleQuiz]);
    assert.equal(await second.exited, 0);
    assert.match(second.output, /handed .*sample-quiz\.rdf to the running classroom/);
    await waitFor(() => /loaded .*sample-quiz\.rdf/.test(classroom.output), 'the handed quiz');

    // A shutdown request closes the classroom; the pages say so instead of retrying.
    const shutdown = spawn(process.env.SHUTDOWN, [], {env: environment, stdio: 'inherit'});
    await new Promise((resolve) => shutdown.on('exit', resolve));
    assert.equal(await classroom.exited, 0);
    await students[0].waitForFunction(() =>
      document.getElementById('status').textContent === 'the classroom has closed', {timeout: STEP_TIMEOUT});
  } finally {
    await browser.close();
    relay.close();
    classroom.kill('SIGKILL');
    fs.rmSync(work, {recursive: true, force: true});
  }
}

main().then(() => {
  clearTimeout(deadline);
  console.log(`ok: ${STUDENTS} students answered ${QUESTIONS} questions, ${STUDENTS * QUESTIONS} answers`);
}, (error) => {
  console.error('FAIL:', error);
  process.exit(1);
});
