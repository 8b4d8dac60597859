/* One register, written by majorities, on three nodes: who promises, accepts, decides, forgets and comes back.
 *
 * A register decides one number of the log. Registers meet in two things only: a node proposes number n when it knows
 * the decision of n - 1, and a decision retires all registers up to its own. So one register is modelled. "Retired"
 * means that its number, or a later one, is decided on this node's disk.
 *
 * Each node is a process. It is an acceptor, and nodes 0 .. LEADERS - 1 lead, all at once and all the time: no election
 * can do worse. One pass of its loop is one step. A step is atomic but for the places named crash_point, where the node
 * may restart: it then has what its disk has. The other places need none: no other node
 * sees what lies between them, so a crash there is a request that got lost, and then a crash.
 *
 * The network is the set of what was sent. Nobody takes a message out, so it may be read never, late, twice and in any
 * order. A refusal is not modelled: a leader may give up a round at any time, with or without one. A message repeated
 * is not modelled either, for it is in the set already.
 *
 * Everything may happen without end: crashes, lost disks, new rounds up to ROUNDS. Of lost disks, one at a time: the
 * next goes when the node of the last has joined. MANY_LOST takes this assumption away.
 *
 * Each of these macros takes one rule away; scripts/model-check says what it breaks:
 *     PROMISE_NOT_SAVED      PROMISE_IGNORED       FIRST_VALUE           WRITE_UNCOVERED    FLOOR_FORGOTTEN
 *     ACCEPTED_NOT_SAVED     SMALL_QUORUM          ROUND_REUSED          UNSAVED_RETIRES    EMPTIED_VOTES
 *     HEARS_ONE              TOP_IGNORED           QUESTION_NOT_TOP      OLD_TOP
 * With DECISIONS_ONLY such a run is judged by its decisions alone; KEEP_ANSWERS keeps what only a missing rule needs.
 *
 * A model in which too little happens proves nothing. WITNESS=n makes an error of the n-th thing that must happen. */

#ifndef ROUNDS
#define ROUNDS 3
#endif
#ifndef LEADERS
#define LEADERS 2
#endif
#define NODES 3

#ifdef SMALL_QUORUM
#define QUORUM 1
#else
#define QUORUM 2
#endif

#define count(mask) (((mask) & 1) + (((mask) >> 1) & 1) + (((mask) >> 2) & 1))
#define bit_of(n) (1 << (n))
#define slot(r, n) (NODES * ((r) - 1) + (n))

/* Two values are enough: agreement does not look into them, and two differ or do not. 0: none. */
#define VALUES 2
#define vote(r, v) (VALUES * ((r) - 1) + (v) - 1)

/* ---- What a node has ---- */

typedef acceptor {
  byte promised;  /* read round */
  byte accepted;  /* write round */
  byte value;
};
acceptor memory[NODES];
acceptor disk[NODES];
byte decision[NODES]; /* the record of the last decision, on disk; 0: this number is not decided here */
bit floor[NODES];     /* in memory: this number is at or below the floor */

#define IDLE 0
#define READING 1
#define WRITING 2
typedef leader {
  byte phase;
  byte round;
  byte acked;       /* nodes whose READ_ACK was counted */
  byte found_round; /* the highest write round in any READ_ACK since the node started */
  byte found_value;
  byte value;       /* what it writes */
};
leader lead[LEADERS];

/* A node without a past: host/kesh/cluster/newcomer.h. */
bit is_new[NODES];
byte heard[NODES];    /* nodes that it heard since it started */
bit must_know[NODES]; /* one of them had to do with this number, or a later one */

/* ---- What was sent ---- */

/* Leader k of the LEADERS uses the rounds k + 1, k + 1 + LEADERS and so on. */
#define owner(r) (((r) - 1) % LEADERS)

short read_req;                   /* a bit for each round */
byte read_ack[NODES * ROUNDS];    /* 0: none; 1: no value; else 2 * write round + value - 1 */
byte write_req[ROUNDS + 1];       /* a bit for each value */
byte write_ack[ROUNDS + 1];       /* a bit for each node */
byte decide;                      /* a bit for each value */

#define ack_round(ack) ((ack) / 2)
#define ack_value(ack) ((ack) % 2 + 1)

/* ---- What nobody sees: who ever accepted what, and what was decided so ---- */

byte votes[VALUES * ROUNDS]; /* a bit for each node */
byte chosen;
byte chosen_round;
byte told;
bit is_any_written;

/* A rule that is missing must show as two decisions, not only as something unsound on the way there. */
#ifdef DECISIONS_ONLY
#define is_beside_the_point true
#else
#define is_beside_the_point false
#endif

byte i; /* 0 between two steps */

/* ---- Invariants ---- */

/* One decision for a number, ever: a majority that has accepted a value in one round has decided it. */
inline check_one_decision(r, v)
{
  if
  :: count(votes[vote(r, v)]) >= 2 ->
    assert(chosen == 0 || chosen == v); /* one decision */
    if
    :: chosen == 0 -> chosen = v; chosen_round = r
    :: else
    fi
  :: else
  fi
}

/* Two nodes never take different values for decided, nor anything that is not. */
inline check_decision(v)
{
  assert(told == 0 || told == v); /* one decision told */
  assert(is_beside_the_point || chosen == v); /* what is told is decided */
  told = v
}

/* Nothing decided is lost: a majority has it on disk, as its acceptance or as its decision, or would have it if a node
 * were not new. */
#define holds(n) (decision[n] == chosen || (disk[n].value == chosen && disk[n].accepted >= chosen_round))
#define keeps(n) (is_new[n] || holds(n))
#define check_nothing_lost() \
  assert(is_beside_the_point || chosen == 0 || keeps(0) + keeps(1) + keeps(2) >= 2) /* nothing decided is lost */

#define check_write(r, v) \
  assert(is_beside_the_point || chosen == 0 || r < chosen_round || v == chosen) /* a later leader writes the decided */

/* ---- What must be able to happen ---- */

#ifdef WITNESS
#define happens(n, condition) assert(WITNESS != n || !(condition))
bit has_joined_empty[NODES];
#define note_joins_empty(n) has_joined_empty[n] = !must_know[n]
#define joined_empty(n) has_joined_empty[n]
#else
#define happens(n, condition) skip
#define note_joins_empty(n) skip
#endif

/* ---- Crash, and loss of a disk ---- */

inline forget(register)
{
  register.promised = 0;
  register.accepted = 0;
  register.value = 0
}

/* Answers that nobody will count any more leave the set: that changes nothing but the number of states. A leader asks
 * again for a round only if it has neither promised it itself nor retired the register. KEEP_ANSWERS keeps them all. A
 * leader that writes then still counts READ_ACKs, as the code does, and knows more than it must in its next round. */
#ifdef KEEP_ANSWERS
#define may_count_read(r) true
#define may_count_write(r) true
#define still_counts(n) (lead[n].phase != IDLE)
#else
#define still_counts(n) (lead[n].phase == READING)
#define is_in(n, r, p) (lead[n].phase == p && lead[n].round == r)
#define may_count_read(r) (is_in(owner(r), r, READING) || (disk[owner(r)].promised < r && !floor[owner(r)]))
#define may_count_write(r) (is_in(owner(r), r, WRITING))
#endif
inline drop_dead_answers()
{
  for (i : 1 .. ROUNDS) {
    if
    :: !may_count_read(i) -> read_ack[slot(i, 0)] = 0; read_ack[slot(i, 1)] = 0; read_ack[slot(i, 2)] = 0
    :: else
    fi;
    if
    :: !may_count_write(i) -> write_ack[i] = 0
    :: else
    fi
  }
  i = 0
}

inline give_up(n)
{
  if
  :: n < LEADERS ->
    lead[n].phase = IDLE;
    lead[n].round = 0;
    lead[n].acked = 0;
    lead[n].value = 0
  :: else
  fi
}

inline restart(n)
{
  give_up(n);
  if
  :: n < LEADERS -> lead[n].found_round = 0; lead[n].found_value = 0
  :: else
  fi;
  memory[n].promised = disk[n].promised;
  memory[n].accepted = disk[n].accepted;
  memory[n].value = disk[n].value;
#ifdef FLOOR_FORGOTTEN
  floor[n] = 0;
#else
  floor[n] = (decision[n] != 0);
#endif
  if
  :: floor[n] -> forget(memory[n]); forget(disk[n]) /* nobody reads the file any more */
  :: else
  fi;
  heard[n] = 0;
  must_know[n] = 0
}

/* The machine is replaced. By the time the new one has joined, nothing that the old one answered, or was answered, is
 * under way any more; what it asked may be. LATE_ANSWERS takes this assumption away. */
inline empty_disk(n)
{
  forget(disk[n]);
  decision[n] = 0;
  restart(n);
#ifndef EMPTIED_VOTES
  is_new[n] = 1;
#endif
#ifndef LATE_ANSWERS
  for (i : 1 .. ROUNDS) {
    read_ack[slot(i, n)] = 0;
    write_ack[i] = write_ack[i] & ~bit_of(n);
    if
    :: owner(i) == n ->
      read_ack[slot(i, 0)] = 0; read_ack[slot(i, 1)] = 0; read_ack[slot(i, 2)] = 0;
      write_ack[i] = 0
    :: else
    fi
  }
  i = 0
#else
  skip
#endif
}

/* ---- Acceptor: src/round_based_registers/register_acceptor.cc ---- */

#define votes_here(n) (!is_new[n] && !floor[n])
#define is_asked(r) ((read_req >> (r)) & 1)
#define promises(n, r) (is_asked(r) && votes_here(n) && r > memory[n].accepted && r > memory[n].promised)

#ifdef PROMISE_IGNORED
#define is_not_below_promise(n, r) true
#else
#define is_not_below_promise(n, r) (r >= memory[n].promised)
#endif
#define accepts(n, r, v) \
  (((write_req[r] >> (v)) & 1) && votes_here(n) && is_not_below_promise(n, r) && r >= memory[n].accepted)
/* To accept again what is accepted changes something only if the answer got lost. */
#define changes(n, r, v) \
  (memory[n].accepted != r || memory[n].value != v || (may_count_write(r) && !(write_ack[r] & bit_of(n))))
#define may_vote(n, r, v) (accepts(n, r, v) && changes(n, r, v))

inline save(n)
{
  disk[n].accepted = memory[n].accepted;
  disk[n].value = memory[n].value;
#ifndef PROMISE_NOT_SAVED
  disk[n].promised = memory[n].promised
#endif
}

inline send_read_ack(n, r)
{
  if
  :: may_count_read(r) ->
    if
    :: memory[n].accepted == 0 -> read_ack[slot(r, n)] = 1
    :: else -> read_ack[slot(r, n)] = 2 * memory[n].accepted + memory[n].value - 1
    fi
  :: else
  fi
}

inline send_write_ack(n, r)
{
  if
  :: may_count_write(r) -> write_ack[r] = write_ack[r] | bit_of(n)
  :: else
  fi
}

/* ---- Decision: src/ordered_broadcast/decided_log.cc ---- */

inline retire(n)
{
  forget(memory[n]);
  forget(disk[n]);
  floor[n] = 1;
  give_up(n)
}

/* ---- Leader: register_requester.cc, consensus.cc, src/ordered_broadcast/proposer.cc ---- */

#define leads_here(n) (n < LEADERS && !is_new[n] && decision[n] == 0)

#ifdef ROUND_REUSED
#define is_unused(n, r) true
#else
#define is_unused(n, r) (r > memory[n].promised && r > memory[n].accepted)
#endif
#define may_read(n, r) \
  (leads_here(n) && owner(r) == n && is_unused(n, r) && (lead[n].phase == IDLE || lead[n].round < r))

#define may_count(n, a) (leads_here(n) && still_counts(n) && !(lead[n].acked & bit_of(a)) && \
                         read_ack[slot(lead[n].round, a)] != 0)

#ifdef FIRST_VALUE
#define is_better(n, ack) (ack_round(ack) > 0 && lead[n].found_round == 0)
#else
#define is_better(n, ack) (ack_round(ack) > lead[n].found_round)
#endif

#define may_write(n) (leads_here(n) && lead[n].phase == READING && count(lead[n].acked) >= QUORUM)
#define has_decided(n, v) \
  (leads_here(n) && lead[n].phase == WRITING && lead[n].value == v && count(write_ack[lead[n].round]) >= QUORUM)
#define is_told(n, v) (decision[n] == 0 && ((decide >> (v)) & 1))

/* The names of values do not matter: the first that is written is 1. */
#define has_to_write(n, v) \
  (lead[n].found_round > 0 && lead[n].found_value == v || lead[n].found_round == 0 && (v == 1 || is_any_written))

/* ---- Joining as new: host/kesh/cluster/newcomer.cc ---- */

#define has_to_hear(n, m) (is_new[n] && (n) != (m) && !(heard[n] & bit_of(m)))

/* What a hello tells: this node had to do with this number, or a later one. */
#define has_on_disk(n) (decision[n] != 0 || disk[n].promised != 0 || disk[n].accepted != 0)
#ifdef QUESTION_NOT_TOP
#define asks(n) false
#else
#define asks(n) (n < LEADERS && lead[n % LEADERS].phase != IDLE)
#endif
#define top(n) (has_on_disk(n) || asks(n))

#ifdef HEARS_ONE
#define has_heard_enough(n) (heard[n] != 0)
#else
#define has_heard_enough(n) (count(heard[n]) == NODES - 1)
#endif
#ifdef TOP_IGNORED
#define knows_enough(n) true
#else
#define knows_enough(n) (!must_know[n] || decision[n] != 0)
#endif

#ifdef LOSSES
byte losses;
#define may_lose_disk(n) (losses < LOSSES)
#define one_more_loss losses++
#elif defined(MANY_LOST)
#define may_lose_disk(n) true
#define one_more_loss skip
#else
#define may_lose_disk(n) (!is_new[0] && !is_new[1] && !is_new[2])
#define one_more_loss skip
#endif

/* ---- Steps ---- */

#define me _pid

inline read_arrives(r, crashes)
{
  memory[me].promised = r;
  save(me);
  if /* crash_point */
  :: crashes ->
    printf("node %d saves its promise for round %d, and crashes before its READ_ACK\n", me, r);
    restart(me)
  :: else ->
    printf("node %d saves its promise for round %d; READ_ACK (write round %d, value %d)\n", me, r,
           memory[me].accepted, memory[me].value);
    send_read_ack(me, r)
  fi;
  drop_dead_answers()
}

inline write_arrives(r, v, crashes)
{
  memory[me].accepted = r;
  memory[me].value = v;
  votes[vote(r, v)] = votes[vote(r, v)] | bit_of(me);
#ifdef ACCEPTED_NOT_SAVED
  send_write_ack(me, r);
  if /* crash_point */
  :: crashes ->
    printf("node %d accepts value %d in round %d; WRITE_ACK; it crashes before it saves\n", me, v, r);
    restart(me)
  :: else ->
    printf("node %d accepts value %d in round %d; WRITE_ACK\n", me, v, r);
    save(me)
  fi;
#else
  save(me);
  if /* crash_point */
  :: crashes ->
    printf("node %d accepts and saves value %d in round %d, and crashes before its WRITE_ACK\n", me, v, r);
    restart(me)
  :: else ->
    printf("node %d accepts and saves value %d in round %d; WRITE_ACK\n", me, v, r);
    send_write_ack(me, r)
  fi;
#endif
  check_one_decision(r, v);
  happens(5, joined_empty(me) && chosen == v); /* one that joined as new votes with the majority that decides */
  check_nothing_lost();
  drop_dead_answers()
}

inline read(r)
{
  printf("node %d leads: READ in round %d\n", me, r);
  lead[me].phase = READING;
  lead[me].round = r;
  lead[me].acked = 0;
  lead[me].value = 0;
  read_req = read_req | (1 << r);
  drop_dead_answers()
}

inline read_back(a)
{
  printf("node %d counts the READ_ACK of node %d for round %d\n", me, a, lead[me].round);
  lead[me].acked = lead[me].acked | bit_of(a);
  i = read_ack[slot(lead[me].round, a)];
  /* two READ_ACKs of one register carry different values */
  happens(2, lead[me].found_round > 0 && ack_round(i) > lead[me].found_round && ack_value(i) != lead[me].found_value);
  happens(3, floor[0] || floor[1] || floor[2]); /* a leader asks for a register that is retired elsewhere */
  if
  :: is_better(me, i) -> lead[me].found_round = ack_round(i); lead[me].found_value = ack_value(i)
  :: else
  fi;
  i = 0
}

inline write(v)
{
  printf("node %d writes value %d in round %d (read back: round %d)\n", me, v, lead[me].round, lead[me].found_round);
  check_write(lead[me].round, v);
  happens(1, chosen != 0 && lead[me].round > chosen_round); /* a leader reads back what is decided, and writes it */
#ifndef WRITE_UNCOVERED
  if
  :: memory[me].promised < lead[me].round -> memory[me].promised = lead[me].round; save(me)
  :: else
  fi;
#endif
  lead[me].phase = WRITING;
  lead[me].value = v;
  lead[me].acked = 0;
  is_any_written = 1;
  write_req[lead[me].round] = write_req[lead[me].round] | bit_of(v);
  drop_dead_answers()
}

/* The decision comes from WRITE_ACKs of a majority, or in a DECIDE. */
inline install(v, crashes)
{
  check_decision(v);
#ifdef UNSAVED_RETIRES
  retire(me);
  if /* crash_point */
  :: crashes ->
    printf("node %d retires the register for decision %d, and crashes before it saves that\n", me, v);
    restart(me)
  :: else ->
    printf("node %d retires the register and saves decision %d; DECIDE\n", me, v);
    decision[me] = v;
    decide = decide | bit_of(v)
  fi;
#else
  decision[me] = v;
  if /* crash_point */
  :: crashes ->
    printf("node %d saves decision %d, and crashes before it retires the register\n", me, v);
    restart(me)
  :: else ->
    printf("node %d saves decision %d and retires the register; DECIDE\n", me, v);
    retire(me);
    decide = decide | bit_of(v)
  fi;
#endif
  check_nothing_lost();
  drop_dead_answers()
}

inline crash()
{
  printf("node %d crashes and restarts\n", me);
  restart(me);
  check_nothing_lost();
  drop_dead_answers()
}

inline lose_disk()
{
  printf("node %d loses its disk\n", me);
  one_more_loss;
  empty_disk(me);
  check_nothing_lost();
  drop_dead_answers()
}

inline hear(n, is_old)
{
  printf("node %d, which is new, hears node %d (top: %d)\n", me, n, top(n) && !is_old);
  heard[me] = heard[me] | bit_of(n);
  must_know[me] = must_know[me] || (top(n) && !is_old)
}

inline join_as_new()
{
  printf("node %d, which was new, votes\n", me);
  note_joins_empty(me);
  happens(4, must_know[me]); /* one joins that had to learn a decision first */
  is_new[me] = 0;
  heard[me] = 0;
  must_know[me] = 0;
  check_nothing_lost()
}

/* ---- A node ---- */

/* A step without choices inside is one transition. So the choices, round, value and crash, are made outside. */
#define acceptor_steps(r) \
  :: d_step { promises(me, r) -> read_arrives(r, false) } \
  :: d_step { promises(me, r) -> read_arrives(r, true) } \
  :: d_step { may_vote(me, r, 1) -> write_arrives(r, 1, false) } \
  :: d_step { may_vote(me, r, 1) -> write_arrives(r, 1, true) } \
  :: d_step { may_vote(me, r, 2) -> write_arrives(r, 2, false) } \
  :: d_step { may_vote(me, r, 2) -> write_arrives(r, 2, true) }

#define leader_steps(v) \
  :: d_step { may_write(me) && has_to_write(me, v) -> write(v) } \
  :: d_step { has_decided(me, v) || is_told(me, v) -> install(v, false) } \
  :: d_step { has_decided(me, v) || is_told(me, v) -> install(v, true) }

#ifdef OLD_TOP
#define hear_steps(n) \
  :: d_step { has_to_hear(me, n) -> hear(n, false) } \
  :: d_step { has_to_hear(me, n) -> hear(n, true) }
#else
#define hear_steps(n) :: d_step { has_to_hear(me, n) -> hear(n, false) }
#endif

active [NODES] proctype node()
{
end:
  do
  acceptor_steps(1)
  acceptor_steps(2)
  :: d_step { may_read(me, 1) -> read(1) }
  :: d_step { may_read(me, 2) -> read(2) }
#if ROUNDS > 2
  acceptor_steps(3)
  :: d_step { may_read(me, 3) -> read(3) }
#endif
#if ROUNDS > 3
  acceptor_steps(4)
  :: d_step { may_read(me, 4) -> read(4) }
#endif
#if ROUNDS > 4
  acceptor_steps(5)
  :: d_step { may_read(me, 5) -> read(5) }
#endif
#if ROUNDS > 5
  acceptor_steps(6)
  :: d_step { may_read(me, 6) -> read(6) }
#endif
  :: d_step { may_count(me, 0) -> read_back(0) }
  :: d_step { may_count(me, 1) -> read_back(1) }
  :: d_step { may_count(me, 2) -> read_back(2) }
  leader_steps(1)
  leader_steps(2)

  :: d_step { true -> crash() }
  :: d_step { may_lose_disk(me) -> lose_disk() }
  hear_steps(0)
  hear_steps(1)
  hear_steps(2)
  :: d_step { is_new[me] && has_heard_enough(me) && knows_enough(me) -> join_as_new() }
  od
}
