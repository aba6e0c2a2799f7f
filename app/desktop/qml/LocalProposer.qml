// The application's own proposer of matches for the manual-link screen: among the
// identities found by the search, it suggests those that share a handle or threads
// with the person being corrected, strongest evidence first.
import QtQml

QtObject {
    function proposeCandidates(personName, contexts) {
        const proposed = [];
        for (const context of contexts) {
            const reasons = [];
            if (context.exactHandleMatch)
                reasons.push("same handle as " + personName);
            if (context.sharedThreadCount > 0)
                reasons.push(context.sharedThreadCount + (context.sharedThreadCount === 1 ? " shared thread" : " shared threads"));
            if (reasons.length === 0)
                continue;
            const confidence = Math.min(1, (context.exactHandleMatch ? 0.6 : 0) + 0.1 * context.sharedThreadCount);
            proposed.push({"sourceIdentityID": context.sourceIdentityID, "confidence": confidence,
                           "support": reasons.join(", ")});
        }
        if (proposed.length === 0)
            return {"noMatchFound": true};
        proposed.sort((a, b) => b.confidence - a.confidence);
        return {"proposed": proposed};
    }
}
