// Drives the record browser in Chromium, over a demo server of its own: ./test --web starts it.
// Screenshots land in build/browser-test/.
'use strict';
const assert = require('node:assert/strict');
const { execFileSync, spawn } = require('node:child_process');
const { once } = require('node:events');
const fs = require('node:fs');
const path = require('node:path');
const { after, before, test } = require('node:test');

const top = path.resolve(__dirname, '../../..');
const work = path.join(top, 'build/browser-test');
const { chromium } = require(path.join(work, 'node_modules/playwright-core'));

const demo = path.join(work, 'demo');
const sqlite = (sql) => execFileSync('sqlite3', [path.join(demo, 'demo.db'), sql], { encoding: 'utf8' }).trim();
const flags = ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
    '--disable-component-update', '--disable-sync'];
const wide = { width: 1200, height: 900 }, narrow = { width: 390, height: 844 };
const random = () => String(20000 + Math.floor(Math.random() * 10000));

let server, browser, page, address;

async function startDemo() {
    const child = spawn(path.join(top, 'run'), ['--web', '-p', random(), '--web-port', random()],
        { env: { ...process.env, VELMORA_DEMO: demo }, stdio: ['ignore', 'pipe', 'inherit'] });
    let said = '';
    for await (const text of child.stdout.setEncoding('utf8').iterator({ destroyOnReturn: false })) {
        said += text;
        const found = /http:\S+/.exec(said);
        if (found) return [child.stdout.resume() && child, found[0]];
    }
    throw new Error('the demo did not start: ' + said);
}

before(async () => {
    fs.rmSync(demo, { recursive: true, force: true });
    [server, address] = await startDemo();
    browser = await chromium.launchPersistentContext(fs.mkdtempSync(path.join(work, 'profile-')),
        { executablePath: '/usr/bin/chromium', headless: true, args: flags, viewport: wide });
    page = await browser.newPage();
    page.setDefaultTimeout(20000);
});

after(async () => {
    if (browser) await browser.close();
    if (server) {
        server.kill('SIGTERM');
        await once(server, 'exit');
    }
    for (const name of fs.readdirSync(work)) {
        if (name.startsWith('profile-')) fs.rmSync(path.join(work, name), { recursive: true, force: true });
    }
});

const ids = () => page.locator('tbody th').allTextContents();
const shot = (name) => page.screenshot({ path: path.join(work, name + '.png'), fullPage: true });

async function openPlaces() {
    await page.goto(address);
    await page.getByRole('navigation', { name: 'Tables' }).getByRole('link', { name: 'Places' }).click();
}

test('pages forwards and backwards through records of equal value', async () => {
    await openPlaces();
    await page.getByLabel('Sorted by').selectOption('COUNTRY');
    await page.getByRole('button', { name: 'Show' }).click();
    const pages = [await ids()];
    while (await page.getByRole('link', { name: 'Next' }).count()) {
        await page.getByRole('link', { name: 'Next' }).click();
        pages.push(await ids());
    }
    assert.equal(pages.flat().join('\n'), sqlite('SELECT ID FROM PLACES ORDER BY COUNTRY, ID'));
    for (const earlier of pages.slice(0, -1).reverse()) {
        await page.getByRole('link', { name: 'Previous' }).click();
        assert.deepEqual(await ids(), earlier);
    }
    assert.equal(await page.getByRole('link', { name: 'Previous' }).count(), 0);
});

test('filters, and keeps the filter on the way to a record and back', async () => {
    await openPlaces();
    await page.getByLabel('Filter').fill('b*n');
    await page.getByLabel('Filter').press('Enter');
    assert.deepEqual(await ids(), ['bergen', 'bern', 'bremen']);
    await page.getByRole('link', { name: 'bern', exact: true }).click();
    await page.getByRole('link', { name: 'Back to the list' }).click();
    assert.deepEqual(await ids(), ['bergen', 'bern', 'bremen']);
});

/** Presses a button that sends a form, and waits for the page that answers it. */
async function press(name) {
    await Promise.all([page.waitForEvent('load'), page.getByRole('button', { name }).click()]);
}

test('inserts, changes, counts and deletes a record', async () => {
    const value = (column) => sqlite(`SELECT ${column} FROM PLACES WHERE ID = 'näh <b>'`);
    await openPlaces();
    await page.getByRole('link', { name: 'New record' }).click();
    await page.getByLabel('ID').fill('näh <b>');
    await page.getByLabel('Name').fill('<$g_title> "&" [b]javascript:[/b]');
    await page.getByLabel('Note').fill('one\ntwo');
    await press('Add');
    assert.equal(await page.getByRole('status').textContent(), 'näh <b> has been added.');
    assert.equal(value('NAME'), '<$g_title> "&" [b]javascript:[/b]');
    assert.equal(value('NOTE'), 'one\ntwo');
    assert.equal(await page.getByLabel('Name').inputValue(), '<$g_title> "&" [b]javascript:[/b]');

    await page.getByLabel('Country').fill('Nowhere');
    await press('Save');
    assert.equal(value('COUNTRY'), 'Nowhere');
    await page.getByLabel('Count by').fill('17');
    await press('Count');
    assert.equal(value('VISITS'), '00000011');

    await page.getByRole('link', { name: 'Delete' }).click();
    await press('Delete for good');
    assert.equal(await page.getByRole('status').textContent(), 'näh <b> has been deleted.');
    assert.equal(value('COUNT(*)'), '0');
});

test('tells what went wrong, and keeps what was entered', async () => {
    await openPlaces();
    await page.getByRole('link', { name: 'New record' }).click();
    await page.getByLabel('ID').fill('oslo');
    await page.getByLabel('Note').fill('kept');
    await page.getByRole('button', { name: 'Add' }).click();
    assert.match(await page.getByRole('alert').textContent(), /There is a record “oslo” already/);
    assert.equal(await page.getByLabel('Note').inputValue(), 'kept');
});

test('works with the keyboard alone, and without a script', async () => {
    await openPlaces();
    assert.equal(await page.locator('script').count(), 0);
    await page.keyboard.press('Tab');
    assert.equal(await page.evaluate(() => document.activeElement.textContent), 'Skip to the content');
    const unlabelled = await page.locator('input:not([type=hidden]), select, textarea').evaluateAll(
        (controls) => controls.filter((control) => control.labels.length === 0).length);
    assert.equal(unlabelled, 0);
});

test('fits a desktop and a phone, light and dark', async () => {
    const views = { tables: '', list: '?table=PLACES&sort=COUNTRY', record: '?table=PLACES&do=record&id=lisbon',
        confirm: '?table=PLACES&do=confirm&id=lisbon', failure: '?table=PLACES&do=record&id=atlantis' };
    for (const [size, viewport] of Object.entries({ desktop: wide, phone: narrow })) {
        for (const colorScheme of ['light', 'dark']) {
            await page.setViewportSize(viewport);
            await page.emulateMedia({ colorScheme });
            for (const [name, query] of Object.entries(views)) {
                await page.goto(address + query);
                await shot(`${name}-${size}-${colorScheme}`);
                assert.ok(await page.evaluate(() => document.styleSheets[0]?.cssRules.length > 0), 'no style sheet');
                const overhang = await page.evaluate(() => document.documentElement.scrollWidth - window.innerWidth);
                assert.ok(overhang <= 0, `${name} is wider than a ${size}`);
            }
        }
    }
});
