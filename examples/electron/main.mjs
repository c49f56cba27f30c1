// Main process: owns the helper. The window only sends samples and draws utterances.
import {PalaverHelper, Resampler} from 'palaver-stt';
import {BrowserWindow, app, ipcMain, session as electronSession, systemPreferences} from 'electron';
import {fileURLToPath} from 'node:url';

const path = name => fileURLToPath(new URL(name, import.meta.url));
const ownPage = new URL('index.html', import.meta.url).href;
let helper;
let meeting;

await app.whenReady();
electronSession.defaultSession.setPermissionRequestHandler((contents, permission, callback) =>
  callback(permission === 'media' && contents.getURL() === ownPage));
const window = new BrowserWindow({
  width: 640, height: 480, webPreferences: {preload: path('preload.cjs'), contextIsolation: true, sandbox: true},
});
const send = (channel, value) => { if (!window.isDestroyed()) window.webContents.send(channel, value); };
const isOwn = event => event.senderFrame?.url === ownPage;

/** Starts the helper when it is needed first. A refused permission is a status, not an error. */
async function started() {
  helper ??= await PalaverHelper.start();
  return helper;
}

ipcMain.handle('helper:status', async event => (isOwn(event) ? (await started()).status : undefined));

// The messages of the helper name `npm run helper:authorize`; a packaged application asks by itself.
ipcMain.handle('helper:authorize', event => (isOwn(event) ? PalaverHelper.authorize() : undefined));

ipcMain.handle('meeting:start', async (event, {locale, sampleRate}) => {
  if (!isOwn(event) || meeting) return undefined;
  await systemPreferences.askForMediaAccess?.('microphone');  // macOS only
  const session = await (await started()).openSession({locale, sources: ['self']});
  meeting = {session, resampler: new Resampler({sampleRate})};
  void (async () => {
    try {
      for await (const utterance of session.utterances) send('utterance', utterance);
    } catch (error) {
      send('problem', error.message);  // the helper ended too often
    }
  })();
  return {available: session.available};
});

ipcMain.on('meeting:audio', (event, channels) => {
  if (!isOwn(event) || !meeting) return;
  for (const chunk of meeting.resampler.push(channels)) meeting.session.send('self', chunk);
});

ipcMain.handle('meeting:stop', async event => {
  if (!isOwn(event) || !meeting) return undefined;
  const {session, resampler} = meeting;
  meeting = undefined;
  for (const chunk of resampler.flush()) session.send('self', chunk);
  return session.stop();
});

app.on('window-all-closed', () => app.quit());
app.on('before-quit', event => {
  if (!helper) return;
  event.preventDefault();  // until the helper has written its last words and ended
  const closing = helper.close();
  helper = undefined;
  void closing.then(() => app.quit());
});

await window.loadFile(path('index.html'));
