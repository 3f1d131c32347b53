// SPDX-License-Identifier: LGPL-3.0-or-later
// The documents of tavrixctl --json that the page reads, as their schemas have them.

// By which an answer says from which map it is.
export interface OfMap {
  generation: number;
  table_id?: number;
}

export interface ErrorDocument {
  schema: 'tavrix.error/1';
  error: { code: string; message: string };
}

export type Level = 'well' | 'warning' | 'critical';

export interface Finding {
  level: Exclude<Level, 'well'>;
  id: string;
  sentence: string;
  advice: string;
}

export interface MapHeader {
  name: string;
  version: string;
  generation: number;
  time?: string;
  folders: number;
  aces: number;
}

interface Dumps {
  readable: boolean;
  count: number;
  bytes: number;
  oldest?: string;
}

export interface Status {
  time: string;
  level: Level;
  findings: Finding[];
  settings: { loaded: boolean; degraded: boolean; file: string };
  map: {
    map?: MapHeader;
    importing: boolean;
    local_copy: boolean;
    inbox: { waits_since?: string; in_work_since?: string; refused: number; last_refused?: string; last_reason?: string };
  };
  services: { name: string; running: boolean; since?: string; last_work?: string; last_words?: string }[];
  buffer: { exists: boolean; sound: boolean; bytes: number; used: number; records: number; oldest?: string };
  events: Dumps;
  audits: Dumps;
  alarms: { name: string; raised?: boolean; since?: string; reason?: string }[];
  disks: { folder: string; purpose: string; bytes: number; free: number; needed: number }[];
}

export interface Child {
  name: string;
  entries: number;
  inherited: boolean;
  child_count: number;
}

export interface ChildrenPage extends OfMap, Child {
  path: string;
  children: Child[];
  more: boolean;
}

export interface Found extends OfMap {
  text: string;
  matches: number;
  more: boolean;
  folders: { path: string; entries: number; inherited: boolean; child_count: number }[];
}

export interface Entry {
  type: 'user' | 'group';
  id: number;
  name?: string;
  mask: number;
  rights: string;
}

export interface Acl extends OfMap {
  path: string;
  in_map: boolean;
  folder: string;
  inherited: boolean;
  from: string;
  entries: Entry[];
}

export interface Effective extends OfMap {
  in_map: boolean;
  folders: { path: string; mask: number; rights: string; visible: boolean }[];
  more?: boolean;
}

interface Whom {
  kind: 'user' | 'group';
  id: number;
  name?: string;
}

interface Ruled {
  path?: string;
  in_map?: boolean;
  stands_in?: string;
  folder?: string;
  explicit?: boolean;
  mask?: number;
  entries?: (Whom & { mask: number; counts: boolean; why: string })[];
}

export interface Check {
  verdict: 'granted' | 'refused' | 'error';
  operation: string;
  path: string;
  only_to_see: boolean;
  object: Ruled;
  parent?: Ruled;
  caller: { user?: string; uid: number; class?: string; groups: { id: number; name?: string }[]; groups_from: string };
  area?: string;
  rule?: string;
  reason: string;
  would_grant: { folder: string; right: string; whom: Whom }[];
  would_refuse: { folder: string; whom: Whom; mask: number }[];
}

export interface Who {
  users: number;
  granted: { user: string; uid: number; through: string; only_to_see: boolean; reason: string }[];
  refused?: { user: string; uid: number; reason: string }[];
  without_account: string[];
}

export interface GroupMap {
  users: { name: string; gids: number[] }[];
}

export interface MapInfo {
  table_id?: number;
  bytes: number;
  image: string;
  map: MapHeader;
}

interface Counts {
  folders: number; // of the map before
  removed: number;
  added: number;
  moved: number;
  changed: number;
  users_touched?: number;
  users?: number;
}

export interface KeptImage extends MapHeader {
  bytes: number;
  sha256: string;
}

export interface KeptMap {
  map: number;
  since?: string;
  in_force: boolean;
  how: string;
  who?: string;
  of?: number;
  image: KeptImage;
  changes?: Counts;
}

export interface HeldMap {
  since?: string;
  reason: string;
  image: KeptImage;
  changes?: Counts;
}

export interface MapHistory {
  maps: KeptMap[];
  held?: HeldMap;
}

export interface LintFinding {
  severity: 'error' | 'warning';
  file?: string;
  path?: string;
  offset: number;
  text: string;
}

export interface RefusedPair {
  folder: string;
  time?: string;
  reason: string;
  details?: string;
  files: { name: string; bytes: number }[];
  errors?: number;
  warnings?: number;
  findings?: LintFinding[];
}

export interface RefusedPairs {
  count: number;
  more: boolean;
  pairs: RefusedPair[];
}

interface Subtree {
  path: string;
  folders: number;
}

export interface MapDiff {
  same: boolean;
  removed: Subtree[];
  added: Subtree[];
  moved: { from: string; to: string; folders: number }[];
  changed: {
    path: string;
    entries: { type: 'user' | 'group'; id: number; name?: string; old_rights?: string; new_rights?: string }[];
  }[];
  effective?: {
    path: string;
    reach: string;
    whom: { type: 'user' | 'group'; id: number; name?: string }[];
    gained_rights: string[];
    lost_rights: string[];
  }[];
}

export interface Published {
  published: boolean;
}

export interface EventRecord {
  time: string;
  id: number;
  type: string;
  done: 'created' | 'changed' | 'renamed' | 'deleted' | 'read' | 'other';
  object: 'FILE' | 'DIR';
  path: string;
  new_path?: string;
  uid: number;
  user_name?: string;
  node?: string; // of a cluster
}

export interface HistoryPage {
  records: EventRecord[];
  more: boolean;
  next?: string;
}

export interface Life {
  last_path: string;
  beginning: 'made' | 'unknown';
  ending: 'alive' | 'deleted' | 'replaced' | 'unknown';
  steps_left_off: number;
  steps: { event: string; path: string; new_path?: string; record: EventRecord }[];
}

export interface Lives {
  lives: Life[];
  more: boolean;
}

interface EventCounts {
  records: number;
  created: number;
  changed: number;
  renamed: number;
  deleted: number;
}

export interface Activity {
  step: 'hour' | 'day';
  counts: EventCounts;
  activity: (EventCounts & { time: string })[];
  notices: { time: string; kind: string; text: string }[];
}
