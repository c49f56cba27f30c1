const {contextBridge, ipcRenderer} = require('electron');

contextBridge.exposeInMainWorld('palaver', {
  status: () => ipcRenderer.invoke('helper:status'),
  authorize: () => ipcRenderer.invoke('helper:authorize'),
  start: options => ipcRenderer.invoke('meeting:start', options),
  audio: channels => ipcRenderer.send('meeting:audio', channels),
  stop: () => ipcRenderer.invoke('meeting:stop'),
  onUtterance: listener => ipcRenderer.on('utterance', (_event, utterance) => listener(utterance)),
  onProblem: listener => ipcRenderer.on('problem', (_event, message) => listener(message)),
});
