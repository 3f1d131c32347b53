// SPDX-License-Identifier: LGPL-3.0-or-later
// The part of the tree that has been loaded: pages of the folders in a folder, and what is open.
import type { Child, ChildrenPage } from '../tool/documents';

// The folders of a folder that are known. Those that a link leads to may lie beyond the pages.
export interface LoadedFolder {
  children: Child[];
  beyond: Child[];
  total: number;
  hasMore: boolean;
}

export interface TreeState {
  levels: ReadonlyMap<string, LoadedFolder>;
  open: ReadonlySet<string>;
}

export interface FolderRow {
  kind: 'folder';
  path: string;
  name: string;
  level: number;
  place: number; // in its folder, from 1
  siblings: number;
  child: Child;
  isOpen: boolean;
}

export interface MoreRow {
  kind: 'more';
  path: string; // the folder of which more follow
  level: number;
  left: number;
}

export type Row = FolderRow | MoreRow;

export const kEmptyTree: TreeState = { levels: new Map(), open: new Set() };

export function below(path: string, name: string): string {
  return path === '' ? name : `${path}/${name}`;
}

// The path as the tool takes it. The slash keeps a name that begins with "-" from being an option.
export function onShare(path: string): string {
  return `/${path}`;
}

export function parentOf(path: string): string {
  return path.slice(0, Math.max(path.lastIndexOf('/'), 0));
}

// "", "Shared" and "Shared/Team" for "Shared/Team/Docs".
export function ancestorsOf(path: string): string[] {
  const names = path.split('/').filter((name) => name !== '');
  return names.map((_, index) => names.slice(0, index).join('/'));
}

export function withPage(state: TreeState, path: string, page: ChildrenPage, isFirst: boolean): TreeState {
  const before = isFirst ? undefined : state.levels.get(path);
  const children = [...(before?.children ?? []), ...page.children];
  const known = new Set(children.map((child) => child.name));
  const beyond = (state.levels.get(path)?.beyond ?? []).filter((child) => !known.has(child.name));
  const levels = new Map(state.levels);
  levels.set(path, { children, beyond: page.more ? beyond : [], total: page.child_count, hasMore: page.more });
  return { ...state, levels };
}

// A folder that a link leads to, which may lie beyond the pages that are loaded.
export function withFolder(state: TreeState, path: string, child: Child): TreeState {
  const parent = parentOf(path);
  const level = state.levels.get(parent);
  if (path === '' || !level) return state;
  if ([...level.children, ...level.beyond].some((known) => known.name === child.name)) return state;
  const levels = new Map(state.levels);
  levels.set(parent, { ...level, beyond: [...level.beyond, child] });
  return { ...state, levels };
}

export function withOpen(state: TreeState, path: string, isOpen: boolean): TreeState {
  const open = new Set(state.open);
  if (isOpen) open.add(path);
  else open.delete(path);
  return { ...state, open };
}

function addRows(state: TreeState, path: string, level: number, rows: Row[]): void {
  const loaded = state.levels.get(path);
  if (!loaded) return;
  const all = [...loaded.children, ...loaded.beyond];
  all.forEach((child, index) => {
    const own = below(path, child.name);
    const isOpen = state.open.has(own);
    rows.push({ kind: 'folder', path: own, name: child.name, level, place: index + 1, siblings: loaded.total, child, isOpen });
    if (isOpen) addRows(state, own, level + 1, rows);
  });
  if (loaded.hasMore) rows.push({ kind: 'more', path, level, left: loaded.total - loaded.children.length });
}

export function rowsOf(state: TreeState): Row[] {
  const rows: Row[] = [];
  addRows(state, '', 1, rows);
  return rows;
}
