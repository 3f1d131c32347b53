// SPDX-License-Identifier: LGPL-3.0-or-later
// Every text of the page, ready for a translation.

const counted = (count: number, one: string, many: string): string =>
  `${count.toLocaleString('en')} ${count === 1 ? one : many}`;

export const texts = {
  title: 'File permissions',
  views: { status: 'Status', permissions: 'Permissions', maps: 'Maps', history: 'History' },
  cancel: 'Cancel',
  again: 'Try again',
  technical: 'Technical details',
  pending: 'Loading',
  none: 'none',
  unknown: 'unknown',
  folders: (count: number) => counted(count, 'folder', 'folders'),
  entries: (count: number) => counted(count, 'entry', 'entries'),
  events: (count: number) => counted(count, 'event', 'events'),
  files: (count: number) => counted(count, 'file', 'files'),
  users: (count: number) => counted(count, 'user', 'users'),
  mapChanged: 'The map changed while you looked.',
  reload: 'Reload',

  // What kept an answer away, and what to do about it.
  errors: {
    'tool-missing': {
      title: 'The tool tavrixctl is not installed.',
      advice: 'Install the package tavrix-tools on this machine.',
    },
    'access-denied': {
      title: 'This page needs administrative access.',
      advice: 'Choose "Limited access" at the top of the console and turn on administrative access, or log in as an administrator.',
    },
    killed: {
      title: 'The question ended before an answer.',
      advice: 'Try again. If it ends again, "tavrixctl doctor" on a terminal says what is wrong.',
    },
    ended: {
      title: 'The question ended before an answer.',
      advice: 'Run "tavrixctl map verify" and "tavrixctl doctor" on a terminal.',
    },
    'no-map': {
      title: 'There is no permission map yet.',
      advice: 'The map comes from the synchronisation agent. The view Status says whether one waits or was refused.',
    },
    'map-broken': {
      title: 'The permission map is damaged.',
      advice: 'Run "tavrixctl map verify" on a terminal, and "tavrixctl map restore" to go back to the local copy.',
    },
    'not-in-map': {
      title: 'The map does not have this folder.',
      advice: 'Check the spelling, or search for a part of the name.',
    },
    'no-settings': {
      title: 'The settings are not loaded.',
      advice: 'Start tavrix-sweeper, or run "tavrixctl config load /etc/tavrix/tavrix.conf".',
    },
    'no-group-map': {
      title: 'There is no group list map, so nobody is known to the file server.',
      advice: '"tavrixctl groupmap verify" on a terminal says more.',
    },
    'no-user': { title: 'There is no such user.', advice: 'Choose a user of this machine.' },
    'no-operation': { title: 'There is no such operation.', advice: 'Choose one of the list.' },
    'not-root': { title: 'This page needs administrative access.', advice: 'Log in as an administrator.' },
    cancelled: { title: 'The question was cancelled.', advice: 'Try again, or ask about less.' },
    other: { title: 'There is no answer.', advice: 'Try again. The technical details say more.' },
  } as Record<string, { title: string; advice: string }>,

  status: {
    verdict: { well: 'All is well', warning: 'Something needs attention', critical: 'Something is wrong' },
    level: { well: 'Well', warning: 'Warning', critical: 'Critical' },
    asOf: (time: string) => `as of ${time}`,
    cards: {
      map: 'Map',
      services: 'Services',
      buffer: 'Event buffer',
      dumps: 'Files that wait for the agent',
      markers: 'Alarms to the agent',
      space: 'Space',
    },
    noMap: 'No map is loaded.',
    mapTime: 'Made',
    generation: 'Generation',
    size: 'Size',
    refused: (count: number) => `${counted(count, 'refused map', 'refused maps')} kept`,
    waits: 'A map waits since',
    inWork: 'A map is being loaded since',
    runs: 'runs',
    stopped: 'does not run',
    lastWork: 'last work',
    noBuffer: 'There is no buffer.',
    fill: (percent: number) => `${percent} % full`,
    oldest: 'oldest',
    events: 'Events',
    audits: 'Reads',
    waiting: (count: number, size: string) => (count === 0 ? 'none' : `${counted(count, 'file', 'files')}, ${size}`),
    unreadable: 'cannot be read',
    alarm: { raised: 'raised', quiet: 'not raised', unknown: 'not known' },
    alarmNames: { 'sync-off': 'Events were lost', rescan: 'Scan of the whole tree' } as Record<string, string>,
    free: (free: string, all: string) => `${free} free of ${all}`,
  },

  permissions: {
    path: 'Path',
    pathHint: 'Shared/Team',
    open: 'Open',
    find: 'Find folders',
    findHint: 'A part of the name',
    search: 'Search',
    matches: (count: number, shown: number) =>
      count > shown ? `${counted(count, 'folder', 'folders')}; the first ${shown} are shown` : counted(count, 'folder', 'folders'),
    nothingFound: 'No folder has this in its name.',
    closeResults: 'Close the results',
    asUser: 'As user',
    everybody: 'Everybody',
    tree: 'Folders of the map',
    root: 'Share',
    more: (count: number) => `${counted(count, 'more folder', 'more folders')}`,
    own: (count: number) => counted(count, 'own entry', 'own entries'),
    inherits: 'inherits',
    notSeen: 'not seen',
    standsIn: (path: string, folder: string) => `The map does not have ${path}. ${folder} stands in for it, and its entries rule.`,
    tabs: { entries: 'Entries', why: 'Why', who: 'Who can', compare: 'Compare' },
    ownEntries: 'These are the folder’s own entries.',
    inheritedFrom: 'Inherited from',
    noEntries: 'No entries: nobody but administrators gets in here.',
    columns: { whom: 'Who', rights: 'Rights', kind: 'Kind', folder: 'Folder', counts: 'Counts', through: 'Through', reason: 'Reason' },
    kind: { user: 'User', group: 'Group' },
    user: 'User',
    operation: 'Operation',
    chooseUser: 'Choose a user.',
    granted: 'Granted',
    refused: 'Refused',
    noVerdict: 'No verdict',
    onlyToSee: 'to see, not to open',
    steps: 'How the verdict comes about',
    area: 'Part of the share',
    caller: 'Who asks',
    rule: 'What the operation needs',
    ruledBy: 'Ruled by',
    rightsThere: 'Rights there',
    parentFolder: 'Folder above',
    wouldGrant: 'What would grant it',
    nothingGrants: 'No right in the map would grant it.',
    wouldRefuse: 'Without which it would be refused',
    give: (right: string, whom: string, folder: string) => `${right} for ${whom} on ${folder}`,
    take: (rights: string, whom: string, folder: string) => `${rights} of ${whom} on ${folder}`,
    may: (count: number, all: number) => `${count} of ${counted(all, 'user', 'users')} may`,
    withoutAccount: 'Without an account on this machine',
    mayNot: 'May not',
    first: 'First user',
    second: 'Second user',
    chooseTwo: 'Choose two users.',
    difference: 'Difference',
    differs: 'differs',
    same: 'the same',
    firstPage: (count: number) => `The first ${count} folders are compared.`,
    legend: 'r read, w write, d delete, n navigate, v view',
  },

  maps: {
    current: 'Current map',
    name: 'Name',
    version: 'Version',
    generation: 'Generation',
    made: 'Made',
    holds: 'Holds',
    size: 'Size',
    refused: 'Refused maps',
    noRefused: 'No map was refused.',
    refusedCount: (count: number) => `${counted(count, 'refused map is', 'refused maps are')} kept.`,
    refusedAdvice: 'The current map stays. The agent has to hand over files without these errors.',
    newest: (shown: number) => `The newest ${shown} are shown.`,
    folder: 'Folder',
    files: 'Files',
    noFiles: 'they are gone',
    file: (name: string, size: string) => `${name}, ${size}`,
    findings: (errors: number, warnings: number) =>
      `What the checks found: ${counted(errors, 'error', 'errors')}, ${counted(warnings, 'warning', 'warnings')}`,
    details: 'What the loader noted',
    findingColumns: { severity: 'Kind', file: 'File', place: 'Place', text: 'Finding' },
    severity: { error: 'Error', warning: 'Warning' },
    place: (path: string | undefined, offset: number) => `${path === undefined ? '' : `${path}, `}byte ${offset}`,
    kept: 'Kept maps',
    noKept: 'No earlier map is kept.',
    cannotKeep: 'These tools keep no earlier maps.',
    held: 'A map is held until somebody approves it',
    heldSince: 'Held since',
    columns: {
      number: 'Number',
      time: 'In force since',
      generation: 'Generation',
      folders: 'Folders',
      users: 'Users touched',
      how: 'How it came',
      actions: 'Actions',
    },
    how: {
      loader: 'from the agent',
      import: 'imported',
      restore: 'restored',
      rollback: 'gone back to',
      approval: 'approved',
      found: 'found',
      cluster: 'from the cluster',
    } as Record<string, string>,
    by: (who: string) => ` by ${who}`,
    inForce: 'in force',
    counts: (removed: number, added: number, moved: number, changed: number) =>
      `${removed} removed, ${added} added, ${moved} moved, ${changed} with other entries`,
    touched: (users: number, all: number) => `${users} of ${counted(all, 'user', 'users')}`,
    changes: 'Changes',
    compare: (number: number) => `Compare map ${number}`,
    compareHeld: 'Show what it changes',
    goBack: (number: number) => `Go back to map ${number}`,
    approve: 'Approve',
    reject: 'Reject',
    close: 'Close',
    difference: {
      title: (name: string) => `From map ${name} to the current map`,
      heldTitle: 'From the current map to the held one',
      same: 'Both maps have the same folders with the same entries.',
      removed: 'Removed folders',
      added: 'Added folders',
      moved: 'Moved folders',
      changed: 'Folders with other entries',
      rights: 'Who gains, who loses',
      nobody: 'Nobody gains or loses a right.',
      columns: { path: 'Folder', from: 'From', folders: 'Folders', whom: 'Who', before: 'Before', after: 'After', gains: 'Gains', loses: 'Loses' },
      first: (shown: number, all: number) => `The first ${shown} of ${all}.`,
    },
    ask: {
      rollback: (number: number, folders: string) =>
        `Map ${number}, with ${folders}, becomes the current map again. All rights follow it at once. The next map of the agent replaces it.`,
      approve: (folders: string) => `The held map, with ${folders}, becomes the current map. All rights follow it at once.`,
      reject: 'The held map is removed. The current map stays.',
    },
  },
};

export const historyTexts = {
  path: 'Path',
  pathHint: 'a folder, *.docx, or a part of the path',
  user: 'User',
  operation: 'What',
  operations: { '': 'Everything', create: 'Created', change: 'Changed', rename: 'Renamed', delete: 'Deleted', read: 'Read' } as Record<string, string>,
  period: 'Period',
  periods: { '2h': 'Last two hours', '1d': 'Last day', '7d': 'Last week', '30d': 'Last month', '365d': 'Last year' } as Record<string, string>,
  columns: { time: 'Time', user: 'Who', done: 'What', path: 'Object', newPath: 'New path', node: 'Node' },
  done: { created: 'created', changed: 'changed', renamed: 'renamed', deleted: 'deleted', read: 'read', other: 'other' } as Record<string, string>,
  nothing: 'Nothing happened that fits.',
  more: 'Show more',
  csv: 'Save as CSV',
  life: (path: string) => `The life of ${path}`,
  events: {
    made: 'made', changed: 'changed', read: 'read', renamed: 'renamed', carried: 'carried along: a folder above was renamed',
    replaced: 'replaced by another', deleted: 'deleted', 'deleted-above': 'deleted with a folder above',
  } as Record<string, string>,
  endings: { alive: 'It is still there.', deleted: 'It is deleted.', replaced: 'Another object took its name.', unknown: 'Its end is not recorded.' } as Record<string, string>,
  leftOff: (count: number) => `${count} older steps are left out.`,
  by: (user: string, node?: string) => (node === undefined ? `by ${user}` : `by ${user} on ${node}`),
  close: 'Close',
  activity: (count: string, step: string) => `${count} by ${step}`,
  ofAll: 'Everything in the period, whatever the filter.',
  notices: 'What stands out',
};

// The rights of a mask, as the tool's words are.
const kRights = ['read', 'write', 'delete', 'navigate', 'view'];
export function rightsOf(mask: number): string {
  const names = kRights.filter((_, bit) => ((mask >> bit) & 1) === 1);
  return names.length === 0 ? texts.none : names.join(', ');
}

export function sizeOf(bytes: number): string {
  const units = ['B', 'KiB', 'MiB', 'GiB', 'TiB'];
  let size = bytes;
  let unit = 0;
  for (; size >= 1024 && unit < units.length - 1; unit += 1) size /= 1024;
  return `${unit === 0 ? size : size.toFixed(1)} ${units[unit]}`;
}

export function timeOf(time: string | undefined): string {
  return time === undefined ? texts.unknown : new Date(time).toLocaleString('en-GB', { timeZoneName: 'short' });
}

export function nameOf(whom: { id: number; name?: string }): string {
  return whom.name === undefined ? String(whom.id) : `${whom.name} (${whom.id})`;
}
